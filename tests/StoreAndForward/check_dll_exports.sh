#!/bin/sh
# check_dll_exports.sh OBJDUMP MODULE: the module exports its factory, undecorated, and nothing else,
# and every entry of its export table has a name.
set -eu
table=$("$1" -p "$2" | sed -n '/^\[Ordinal\/Name Pointer\] Table/,/^$/p' | tail -n +2)
exported=$(echo "$table" | sed -n 's/^[[:space:]]*\[ *[0-9]*\][[:space:]]*//p')
addresses=$("$1" -p "$2" | sed -n '/^Export Address Table/,/^$/p' | grep -c '^[[:space:]]*\[')
if [ "$exported" != make_StoreAndForwardStage ] || [ "$addresses" != 1 ]; then
  echo "the module exports $addresses addresses with these names:"
  echo "$exported"
  exit 1
fi
