#!/usr/bin/env bash
# Writes the API reference and fails when a public name lacks documentation.
#
#   scripts/api-reference.sh DOXYFILE OUTPUT_DIR [DOXYFILE_LINE...]
#
# Runs doxygen with DOXYFILE (as CMake wrote it from docs/Doxyfile.in) into
# OUTPUT_DIR (html/ and xml/), each further argument a Doxyfile line that
# overrides it. Doxygen itself fails on any warning: an undocumented class or
# member, or a comment it cannot read. It only warns about a namespace's
# members when the namespace itself is documented, so every namespace is
# checked here too.
set -euo pipefail
doxyfile=$(realpath "$1")
out=$2
shift 2
mkdir -p "$out"
out=$(realpath "$out")
log=$out/doxygen-warnings.log

if ! { cat "$doxyfile"; printf '%s\n' "OUTPUT_DIRECTORY = $out" "$@"; } |
    (cd "$out" && doxygen -) >"$log" 2>&1; then
    cat "$log"
    echo "doxygen failed: $(grep -c 'is not documented' "$log" || true) undocumented public names," \
        "$(grep -vc 'is not documented' "$log" || true) other warnings"
    exit 1
fi

undocumented=()
for file in "$out"/xml/namespace*.xml; do
    [ -e "$file" ] || continue
    name=$(sed -n 's|.*<compoundname>\(.*\)</compoundname>.*|\1|p' "$file" | head -n 1)
    [ "$name" = std ] && continue
    # The namespace's own description sits outside its members' sections.
    if ! awk '/<sectiondef/ {in_section++}
              /<\/sectiondef>/ {in_section--; next}
              !in_section && /<(brief|detailed)description>/ {in_description = 1}
              !in_section && in_description && /<para>/ {documented = 1}
              !in_section && /<\/(brief|detailed)description>/ {in_description = 0}
              END {exit documented ? 0 : 1}' "$file"; then
        undocumented+=("$name")
    fi
done
if [ ${#undocumented[@]} -ne 0 ]; then
    echo "namespaces without documentation (doxygen does not check their members then):" \
        "${undocumented[*]}"
    exit 1
fi
echo "API reference: $out/html/index.html"
