#!/usr/bin/env bash
# Prepares this machine for the integration tests: the test account "anna", whose
# home /Users/anna exists only inside each test's sandbox. Idempotent.
set -euo pipefail
if ! getent passwd anna >/dev/null; then
  useradd --no-create-home --home-dir /Users/anna --shell /bin/sh --user-group anna
fi
# A second local user (home /Users/bert, inside the sandboxes too), for what one
# user's runs must not be able to do to another's.
if ! getent passwd bert >/dev/null; then
  useradd --no-create-home --home-dir /Users/bert --shell /bin/sh --user-group bert
fi
