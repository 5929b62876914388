#!/usr/bin/env bash
# Programs started on a processor without the instructions that the library was compiled for end with one sentence.
#
#     old_processor.sh QEMU PROGRAM...
set -euo pipefail
qemu=$1
shift
refusal="ornik: this build of the library needs instructions that the processor has not got (sse4.1): build it on this \
machine, or for its instruction set."
for program in "$@"; do
    status=0
    text=$("$qemu" -cpu core2duo "$program" --gtest_list_tests 2>&1) || status=$?
    text=$(grep -v '^qemu-x86_64: warning: ' <<<"$text")
    # A library for a level by name is refused by the loader, and not reached.
    if [[ $text = *" CPU ISA level is lower than required" && $text = *libornik* && $text != *$'\n'* ]]; then
        text=$refusal
        [ "$status" = 127 ] && status=1
    fi
    [ "$text" = "$refusal" ] && [ "$status" = 1 ] || { echo "$program: $status: $text"; exit 1; }
done
