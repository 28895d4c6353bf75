#!/bin/sed -Ef
# Shows a header's comments to doxygen, which looks only at those with three slashes.
/^ *\/\//s#\\#\\\\#g
1s#^// (.*)#/// @file\n/// \1#
1!s#^( *)//( |$)#\1///\2#
s#^( *[^/ ].*[^ ]) +// #\1  ///< #
