// Boost.URL, compiled here: the archive of the distribution is not position-independent, so that a
// shared library cannot hold it.
#include <boost/url/src.hpp>
