// calls_target.h: one call of a public function, picked with its arguments by arbitrary bytes. The first two pick the
// function, each further one an argument. Shared by the fuzzer and by its bounded run as a test.
#pragma once

#include "hostile/calls.h"

namespace ornik::test {

/// What is wrong with the call; empty when nothing is.
inline std::string exercise_call(const std::uint8_t* data, std::size_t size) {
    if (size < 2) {
        return "";
    }
    const std::vector<CallRow>& rows = call_rows();
    const CallRow& row = rows[(data[0] + std::size_t{256} * data[1]) % rows.size()];
    World world(row.operands, {data + 2, data + size});
    const std::string fault = run_call(row, world).fault;
    return fault.empty() ? "" : row.name + ": " + fault;
}

}  // namespace ornik::test
