#!/bin/sh
# check_exports.sh MODULE: the module exports its factory, undecorated, and nothing else.
set -eu
exported=$(nm --dynamic --defined-only --format=posix "$1" | cut -d ' ' -f 1)
if [ "$exported" != make_StoreAndForwardStage ]; then
  echo "the module exports:"
  echo "$exported"
  exit 1
fi
