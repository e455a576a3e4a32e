#!/usr/bin/env bash
# exports.sh LIBRARY: what a shared library exports, one name a line with its version, the same under every compiler.
set -euo pipefail
nm -DC --defined-only "$1" | awk '$2 != "A"' | cut -c 20- | LC_ALL=C sort -u
