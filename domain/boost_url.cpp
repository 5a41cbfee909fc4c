// Compiles Boost.URL here: the distribution's archive is not position-independent, so a shared
// library cannot contain it.
#include <boost/url/src.hpp>
