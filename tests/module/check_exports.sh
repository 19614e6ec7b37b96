#!/usr/bin/env bash
# The module must export exactly its three entry points.
set -euo pipefail
# Usage: check_exports.sh NM MODULE
nm=$1
got=$("$nm" -D --defined-only "$2" | awk '$2 ~ /^[TtWwDdBbVv]$/ {print $3}' | sort)
want=$(printf '%s\n' ornCanUnloadModule ornCreateObject ornGetObjectFactory)
if [ "$got" != "$want" ]; then
  echo "unexpected exports:"; echo "$got"; exit 1
fi
echo "exports ok"
