#!/usr/bin/env bash
# Installs what is missing, builds the release configuration and runs the main job: the sample
# program that writes a small object graph through a Writer, reads it back and shows what it did.
set -euo pipefail
cd "$(dirname "$0")"
./scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target zoserialize_sample
exec ./build/release/examples/zoserialize_sample "$@"
