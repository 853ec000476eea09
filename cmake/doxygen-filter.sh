#!/bin/sh
# The headers document their contracts in plain // comments; Doxygen reads /// ones. A comment
# line of its own becomes a /// comment (of what follows), a comment after a member a ///< one.
exec sed -e 's|^\([[:space:]]*\)//\(/*\)|\1///|' \
    -e 's|\([;,{]\)[[:space:]]*//\([^/<]\)|\1 ///<\2|' "$1"
