#!/bin/sh
# Plays every scenario file of a folder against the real daemon.
#   scenario-run.sh TEVCTL TEVD DIR
set -u
exec "$1" scenario run --tevd "$2" "$3"/*.scn
