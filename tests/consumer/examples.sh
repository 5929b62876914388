#!/usr/bin/env bash
# The examples that bring their own data run, and write the same on one processor as on all.
#
#     examples.sh FOLDER_OF_PROGRAMS
set -euo pipefail
folder=$1

# same_on_one_processor EXPECTED PROGRAM ARGUMENTS...: a line of the output matches, and all of it comes again.
same_on_one_processor() {
    local expected=$1 program=$folder/$2 output again
    shift 2
    output=$("$program" "$@")
    grep -q "$expected" <<<"$output" || { echo "$program: no $expected in: $output"; exit 1; }
    again=$(taskset -c 0 "$program" "$@")
    diff <(echo "$output") <(echo "$again") || { echo "$program: differs on one processor"; exit 1; }
}
same_on_one_processor '^step    2   loss [0-9]' character_model --steps 2 --batch 2 --length 20
same_on_one_processor 'the forecast is off by [0-9]' tide_forecast --steps 3 --batch 8 --hidden 8
echo "examples: all good"
