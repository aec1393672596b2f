#!/usr/bin/env bash
# User-level scenario: a boot script reports that the host has booted, over
# the user-level context, as any user-space service would. The "UserLevel"
# correlator turns it into the audit event "kos.audit.host.boot".
# Expects a running tevd under TEVD_ROOT and tevctl on PATH (demo/run.sh sets
# both up); on its own: TEVD_ROOT=/path/to/root PATH=build/tools/tevctl:$PATH bash demo/user.sh
set -euo pipefail
: "${TEVD_ROOT:?set TEVD_ROOT to the root of a running tevd}"

echo "   boot script: tev.user.host.boot -> expect kos.audit.host.boot"
tevctl post --user tev.user.host.boot 'Host has booted.'

echo "   console: tev.user.kcon.reboot.host -> expect kos.audit.kcon.host.reboot"
tevctl post --user tev.user.kcon.reboot.host 'Host reboot requested from the console.'

echo "   DHCP client: tev.user.dhclient.lease.none mtlnic0 -> expect kos.problem.dhclient.lease.none"
tevctl post --user tev.user.dhclient.lease.none 'No DHCP lease on %s.' mtlnic0
