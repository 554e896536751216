#!/usr/bin/env bash
# The API reference's completeness check (scripts/api-reference.sh), run into
# a temporary folder.
#
#   api_reference_check.sh DOXYFILE             checks the public headers
#   api_reference_check.sh DOXYFILE --self-test checks that the check fails on
#                                               an undocumented function and
#                                               on an undocumented namespace
set -euo pipefail
doxyfile=$1
mode=${2:-}
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
check=$source_dir/scripts/api-reference.sh
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

if [ "$mode" != --self-test ]; then
    "$check" "$doxyfile" "$work/out"
    exit
fi

# check_fails_on WHAT HEADER_TEXT EXPECTED_MESSAGE
check_fails_on() {
    local dir
    dir=$(mktemp -d "$work/case.XXXXXX")
    mkdir "$dir/include"
    printf '%s\n' "$2" >"$dir/include/sample.hpp"
    if "$check" "$doxyfile" "$dir/out" "INPUT = $dir/include" "USE_MDFILE_AS_MAINPAGE =" \
        >"$dir/log" 2>&1; then
        echo "the check accepted a header with $1:"
        cat "$dir/log"
        exit 1
    fi
    if ! grep -q "$3" "$dir/log" || grep -q 'Member documented()' "$dir/log"; then
        echo "the check failed on a header with $1, but not for it alone:"
        cat "$dir/log"
        exit 1
    fi
    echo "the check fails on $1"
}

check_fails_on "an undocumented function" '#pragma once
/// A documented namespace.
namespace sample {
/// A documented function.
int documented();
int undocumented();
}  // namespace sample' 'Member undocumented() .* is not documented'

check_fails_on "an undocumented namespace" '#pragma once
namespace sample {
/// A documented function.
int documented();
}  // namespace sample' 'namespaces without documentation .*: sample$'
