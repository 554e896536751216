#!/usr/bin/env bash
# The README shows examples/readme_example.cpp, which the build compiles; this
# checks that the README shows it exactly as it is.
set -euo pipefail
root=$1
shown=$(awk '/<!-- example: examples\/readme_example.cpp -->/ {found=1; next}
             found && /^```cpp$/ {inside=1; next}
             inside && /^```$/ {exit}
             inside {print}' "$root/README.md")
if [ "$shown" != "$(cat "$root/examples/readme_example.cpp")" ]; then
    echo "README.md and examples/readme_example.cpp differ:"
    diff <(printf '%s\n' "$shown") "$root/examples/readme_example.cpp" || true
    exit 1
fi
echo "README example matches examples/readme_example.cpp"
