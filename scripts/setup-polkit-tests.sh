#!/usr/bin/env bash
# Prepares this machine for the tests that run polkit for real: the test
# administrator "mwadmin" (password "mendwell-admin-test"), whom a polkit rule
# inside each test's private namespace names as the administrator. The account
# has no home and no login shell. Idempotent.
set -euo pipefail
"$(dirname "${BASH_SOURCE[0]}")/setup-tests.sh"
if ! getent passwd mwadmin >/dev/null; then
  useradd --no-create-home --home-dir /nonexistent --shell /usr/sbin/nologin --user-group mwadmin
fi
echo 'mwadmin:mendwell-admin-test' | chpasswd
