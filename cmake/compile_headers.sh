#!/bin/sh
# compile_headers.sh COMPILER OPTIONS... -o FILE -c SOURCE: compiles and writes beside FILE, in FILE.sum, the digest of what
# the source consists of with all that it includes. A compiler's precompiled headers are other bytes each time, so the
# compiler's cache goes by this digest: who builds the same in another folder finds there what it needs.
set -eu
"$@"
file=
left=$#
while [ "$left" -gt 0 ]; do
    argument=$1
    shift
    left=$((left - 1))
    case $argument in
        -o) file=$1; shift; left=$((left - 1)) ;;
        -MF | -MT) shift; left=$((left - 1)) ;;
        -MD | -c) ;;
        *) set -- "$@" "$argument" ;;
    esac
done
case $file in
    *.gch)
        CCACHE_DISABLE=1 "$@" -E -P -dD -o "$file.i"
        digest=$(sha256sum <"$file.i")
        rm "$file.i"
        printf '%s\n' "${digest%% *}" >"$file.sum"
        ;;
esac
