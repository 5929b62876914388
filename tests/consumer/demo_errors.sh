#!/usr/bin/env bash
# The demo meets missing, truncated and malformed data: an error that names the file, and exit code 1.
#
#     demo_errors.sh PROGRAM WORK_FOLDER
set -euo pipefail
program=$1 work=$2
rm -rf "$work"
mkdir -p "$work"

# Two images of 1 x 2 pixels in each part, with their labels.
idx() { printf "$1" | gzip >"$work/$2"; }
good_files() {
    for part in train t10k; do
        idx '\0\0\010\003\0\0\0\002\0\0\0\001\0\0\0\002\001\002\003\004' "$part-images-idx3-ubyte.gz"
        idx '\0\0\010\001\0\0\0\002\005\011' "$part-labels-idx1-ubyte.gz"
    done
}

expect_failure() {
    local status=0 output
    output=$("$program" --network perceptron --data "$work" 2>&1 >/dev/null) || status=$?
    if [ "$status" -ne 1 ] || [ "$output" != "fashion_mnist: $work/$1" ]; then
        echo "expected exit code 1 and: fashion_mnist: $work/$1"
        echo "got exit code $status and: $output"
        exit 1
    fi
}

expect_failure "train-images-idx3-ubyte.gz: cannot be opened (on Debian the data set is the package dataset-fashion-mnist)"
good_files
"$program" --network perceptron --data "$work" --epochs 1 --batch 2 | grep -q 'overall'
idx '\0\0\010\003\0\0\0\002\0\0\0\001\0\0\0\002\001\002\003' t10k-images-idx3-ubyte.gz
expect_failure "t10k-images-idx3-ubyte.gz: ends too early, it is truncated"
idx '\0\0\010\003\0\0\0\002\0\0\0\001\0\0\0\002\001\002\003\004\005' t10k-images-idx3-ubyte.gz
expect_failure "t10k-images-idx3-ubyte.gz: holds more bytes than its header tells"
idx '\0\0\010\003\377\377\377\377\377\377\377\377\0\0\0\002' t10k-images-idx3-ubyte.gz
expect_failure "t10k-images-idx3-ubyte.gz: has a header with impossible extents"
idx '\0\0\010\001\0\0\0\002\005\011' t10k-images-idx3-ubyte.gz
expect_failure "t10k-images-idx3-ubyte.gz: is no IDX file of unsigned bytes with 3 axes"
good_files
idx '\0\0\010\001\0\0\0\002\005\012' train-labels-idx1-ubyte.gz
expect_failure "train-labels-idx1-ubyte.gz: has a label beyond class 9"
idx '\0\0\010\001\0\0\0\001\005' train-labels-idx1-ubyte.gz
expect_failure "train-labels-idx1-ubyte.gz: has another number of labels than there are images"
good_files
truncate -s 25 "$work/train-images-idx3-ubyte.gz"
expect_failure "train-images-idx3-ubyte.gz: ends too early, it is truncated"
good_files
truncate -s -8 "$work/train-images-idx3-ubyte.gz" # the check sum
printf '\0\0\0\0\0\0\0\0' >>"$work/train-images-idx3-ubyte.gz"
expect_failure "train-images-idx3-ubyte.gz: is damaged, or is not a gzip file"
echo "demo: all errors are clear"
