#!/usr/bin/env bash
# Succeeds when clang++ can link a libFuzzer target on this machine.
set -euo pipefail
command -v clang++ >/dev/null 2>&1 || exit 1
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cat > "$dir/f.cpp" <<'SRC'
#include <cstddef>
#include <cstdint>
extern "C" int LLVMFuzzerTestOneInput(const uint8_t*, size_t) { return 0; }
SRC
clang++ -fsanitize=fuzzer "$dir/f.cpp" -o "$dir/f" >/dev/null 2>&1
