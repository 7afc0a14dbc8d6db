#!/bin/sh
# Runs COMMAND with one more certificate authority in the system's trust store, seen by
# COMMAND alone: a private mount namespace gets /etc/ssl/certs replaced by a copy (made
# in DIR, which the caller removes afterwards) that also holds CA. The application trusts
# the system store only, so this is how it comes to trust the lab's reference service
# without the machine trusting it. Needs root; COMMAND keeps this process's pid.
#
#   with-trusted-ca.sh CA DIR -- COMMAND [ARGS...]
set -eu
if [ $# -lt 4 ] || [ "$3" != -- ]; then
    echo "usage: $0 CA DIR -- COMMAND [ARGS...]" >&2
    exit 2
fi
ca=$1 dir=$2
shift 3
mkdir -p "$dir"
cp -a /etc/ssl/certs/. "$dir"/
cp "$ca" "$dir/hollowmere-lab-ca.pem"
openssl rehash "$dir" >/dev/null 2>&1
# shellcheck disable=SC2016 # expanded by the inner shell
exec unshare --mount --propagation private sh -c \
    'mount --bind "$0" /etc/ssl/certs && exec "$@"' "$dir" "$@"
