// Each public function of the tensors, layers, losses and steps, with its good arguments.
#include <map>

#include "digest.h"
#include "hostile/calls.h"
#include "random/generator.h"

namespace ornik::digests {

namespace {

// Their results are what the memory held before, or they print where it lies.
bool has_no_values(const std::string& name) {
    return name.find("empty") != std::string::npos || name.find("rint") != std::string::npos;
}

}  // namespace

std::vector<Row> call_rows() {
    std::vector<Row> rows;
    std::map<std::string, int> taken;
    for (const test::CallRow& call : test::call_rows()) {
        if (call.refused || has_no_values(call.name)) {
            continue;
        }
        const int overload = ++taken[call.name];
        rows.push_back(
            {"calls/" + call.name + (overload > 1 ? "/" + std::to_string(overload) : ""), [&call](Digest& digest) {
                 set_random_seed(1);
                 test::World world(call.operands, {});
                 digest.add(test::run_call(call, world).refusal.empty() ? "done" : "refused");
                 for (const auto& operand : world.operands) {
                     digest.add(operand.tensor);
                 }
                 for (const auto& result : world.results) {
                     digest.add(result.get());
                 }
                 digest.add(world.slot);
             }});
    }
    return rows;
}

}  // namespace ornik::digests
