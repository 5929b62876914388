// Every public function with every kind of argument: it works or refuses them with a text, it writes what it says it
// writes and nothing else, and it never writes to read-only memory.
#include "calls.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace ornik::test {
namespace {

// What printing functions say goes nowhere; faults are told at the end of a test.
class HostileCalls : public testing::Test {
  protected:
    void SetUp() override { testing::internal::CaptureStdout(); }
    void TearDown() override {
        testing::internal::GetCapturedStdout();
        for (const std::string& fault : faults_) {
            ADD_FAILURE() << fault;
        }
    }

    void expect(bool holds, const CallRow& row, const std::string& fault) {
        if (!holds) {
            faults_.push_back(row.name + ": " + fault);
        }
    }

    // The text of the refusal, empty when the call worked.
    std::string run(const CallRow& row, World& world) {
        if (getenv("HT") != nullptr) {
            static const std::string skip = [] {
                std::ifstream f("/tmp/ht.skip");
                return std::string(std::istreambuf_iterator<char>(f), {});
            }();
            if (skip.find("<" + row.name + ">") != std::string::npos)
                return "skipped";
            static FILE* f = fopen("/tmp/ht.log", "w");
            rewind(f);
            std::string p;
            for (auto x : world.picks.values())
                p += " " + std::to_string(x);
            fprintf(f, "<%s> %s                                                                           \n",
                    row.name.c_str(), p.c_str());
            fflush(f);
        }
        const CallOutcome outcome = run_call(row, world);
        std::string picks = " with picks";
        for (const std::size_t pick : world.picks.values()) {
            picks += " " + std::to_string(pick);
        }
        expect(outcome.fault.empty(), row, outcome.fault + picks);
        return outcome.refusal;
    }

  private:
    std::vector<std::string> faults_;
};

TEST_F(HostileCalls, OneArgumentAtATime) {
    for (const CallRow& row : call_rows()) {
        World good(row.operands, {});
        const std::string text = run(row, good);
        expect(text.empty() != row.refused, row, "good arguments: " + text);
        const std::vector<std::size_t>& choices = good.picks.choices();
        for (std::size_t place = 0; place < choices.size(); ++place) {
            std::vector<std::size_t> picks(place + 1);
            for (picks[place] = 1; picks[place] < choices[place]; ++picks[place]) {
                World world(row.operands, picks);
                run(row, world);
            }
        }
    }
}

TEST_F(HostileCalls, WritersAnnounceThemselves) {
    int writers = 0;
    for (const CallRow& row : call_rows()) {
        World world(row.operands, {});
        run(row, world);
        for (std::size_t i = 0; i < world.operands.size(); ++i) {
            const World::Operand& operand = world.operands[i];
            if (operand.mark != '!') {
                continue;
            }
            ++writers;
            const std::string which = "operand " + std::to_string(i) + " ";
            expect(operand.storage->version() > operand.version, row, which + "is not written");
            World kept(row.operands, {}, static_cast<int>(i));
            const std::string refusal = run(row, kept);
            expect(refusal.find("is to be written, but its storage is read-only.") != std::string::npos, row,
                   which + "is written though it is read-only. " + refusal);
            for (const World::Operand& unchanged : kept.operands) {
                expect(World::bytes(unchanged.tensor) == unchanged.before, row, which + "is checked after a write");
            }
        }
    }
    EXPECT_GT(writers, 150);
}

}  // namespace
}  // namespace ornik::test
