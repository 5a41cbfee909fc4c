// Compiles Boost.URL into this tree. The code of the distribution's static library is not
// position-independent, so a shared library cannot contain it.
#include <boost/url/src.hpp>
