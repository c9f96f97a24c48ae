#!/bin/sh
# Runs a command in a root folder with the files that programs expect of a system, which nobody else sees.
#
#     in_root.sh ROOT COMMAND...
#
# The command replaces this: signals reach it.
set -e
root=$1
shift
exec unshare --mount sh -c '
    mount --rbind /dev "$0/dev"
    mount -t proc proc "$0/proc"
    exec chroot "$0" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C DEBIAN_FRONTEND=noninteractive "$@"
' "$root" "$@"
