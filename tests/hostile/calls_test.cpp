// Every public function with every kind of argument: it works or refuses them with a text, it writes what it says it
// writes and nothing else, and it never writes to read-only memory.
#include "calls.h"

#include <gtest/gtest.h>

#include <random>

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

    void expect(bool holds, const CallRow& row, const std::vector<std::size_t>& picks, const std::string& fault) {
        if (holds) {
            return;
        }
        std::string text = row.name + ", picks";
        for (const std::size_t pick : picks) {
            text += " " + std::to_string(pick);
        }
        faults_.push_back(text + ": " + fault);
    }

    // The text of the refusal, empty when the call worked. Anything but a library error with a text is a fault, and so
    // is a write that was not announced or not to be expected.
    std::string run(const CallRow& row, const std::vector<std::size_t>& picks, World& world) {
        std::string text;
        try {
            row.call(world);
        } catch (const std::runtime_error& error) {
            text = error.what();
            expect(!text.empty(), row, picks, "an error without a text");
        } catch (const std::logic_error& error) {
            text = error.what();  // A selection item without a number that fits.
            expect(text == "invalid stoi argument" || text == "stoi argument out of range", row, picks, text);
        } catch (const std::exception& error) {
            text = error.what();
            expect(false, row, picks, text);
        }
        for (const World::Operand& operand : world.operands) {
            const bool same = !operand.storage || operand.storage->version() == operand.version;
            const bool may_write =
                text.empty() && std::any_of(world.operands.begin(), world.operands.end(), [&](const auto& o) {
                    return o.mark != ' ' && o.storage == operand.storage;
                });
            expect(may_write || same, row, picks, "wrote to an operand. " + text);
        }
        return text;
    }

  private:
    std::vector<std::string> faults_;
};

TEST_F(HostileCalls, OneArgumentAtATime) {
    for (const CallRow& row : call_rows()) {
        World good(row.operands, {});
        run(row, {}, good);
        const std::vector<std::size_t>& choices = good.picks.choices();
        for (std::size_t place = 0; place < choices.size(); ++place) {
            std::vector<std::size_t> picks(place + 1);
            for (picks[place] = 1; picks[place] < choices[place]; ++picks[place]) {
                World world(row.operands, picks);
                run(row, picks, world);
            }
        }
    }
}

TEST_F(HostileCalls, ManyArgumentsAtOnce) {
    std::mt19937 random(1);
    for (const CallRow& row : call_rows()) {
        for (int n = 0; n < 60; ++n) {
            std::vector<std::size_t> picks(24);
            for (std::size_t& pick : picks) {
                pick = random() % 3 == 0 ? random() % 1000 : 0;
            }
            World world(row.operands, picks);
            run(row, picks, world);
        }
    }
}

TEST_F(HostileCalls, WritersAnnounceThemselves) {
    int writers = 0;
    for (const CallRow& row : call_rows()) {
        World world(row.operands, {});
        const std::string text = run(row, {}, world);
        expect(text.empty() != row.refused, row, {}, text);
        for (std::size_t i = 0; i < world.operands.size(); ++i) {
            const World::Operand& operand = world.operands[i];
            if (operand.mark != '!') {
                continue;
            }
            ++writers;
            expect(text.empty() && operand.storage->version() > operand.version, row, {i}, "no write. " + text);
            World kept(row.operands, {}, static_cast<int>(i));
            const std::string refusal = run(row, {}, kept);
            expect(refusal.find("is to be written, but its storage is read-only.") != std::string::npos, row, {i},
                   "wrote to read-only memory. " + refusal);
            for (const World::Operand& unchanged : kept.operands) {
                expect(World::bytes(unchanged.tensor) == unchanged.before, row, {i}, "wrote before all checks");
            }
        }
    }
    EXPECT_GT(writers, 150);
}

}  // namespace
}  // namespace ornik::test
