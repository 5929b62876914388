// Every public function with every kind of argument: it works or refuses them with the texts of messages.txt, it writes
// what it says it writes and nothing else, and it never writes to read-only memory.
#include "calls.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>

namespace ornik::test {
namespace {

// A refusal as messages.txt has it: file, function and, in quotes, the whole message, each on a line of its own.
std::string entry_of(std::string text) {
    const auto cut = [&text](const std::string& mark) {
        const std::size_t at = std::min(text.rfind(mark), text.size());
        const std::string behind = text.substr(std::min(at + mark.size(), text.size()));
        text.resize(at);
        return behind;
    };
    const std::string function = cut("  FUNC: "), line = cut("  LINE: "), file = cut(" ( FILE: ");
    for (std::size_t at = 0; (at = text.find('\n', at)) != std::string::npos;) {
        text.replace(at, 1, "\\n");
    }
    return file + "\n  " + function.substr(0, function.find('\n')) + "\n    \"" + text + "\"\n";
}

std::set<std::string> entries_of(std::istream& lines) {
    std::set<std::string> entries;
    std::string above[2];
    for (std::string line; std::getline(lines, line);) {
        const std::size_t depth = line.find_first_not_of(' ') / 2;
        line += '\n';
        depth < 2 ? void(above[depth] = line) : void(entries.insert(above[0] + above[1] + line));
    }
    return entries;
}

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
        const CallOutcome outcome = run_call(row, world);
        std::string picks = " with picks";
        for (const std::size_t pick : world.picks.values()) {
            picks += " " + std::to_string(pick);
        }
        expect(outcome.fault.empty(), row, outcome.fault + picks);
        said_.insert(entry_of(outcome.refusal));
        return outcome.refusal;
    }

    // Messages are part of the interface. All that was said is left in a file, from which entries can be taken.
    void expect_entries(const std::filesystem::path& path) {
        const auto all = std::filesystem::path(testing::TempDir()) / "ornik_messages.txt";
        std::ofstream left(all);
        for (const std::string& entry : said_) {
            left << entry;
        }
        std::ifstream lines(path);
        const std::set<std::string> wanted = entries_of(lines);
        EXPECT_GT(wanted.size(), 1000U);
        for (const std::string& entry : wanted) {
            if (!said_.contains(entry)) {
                faults_.push_back("not said any more, see " + all.string() + ":\n" + entry);
            }
        }
    }

  private:
    std::vector<std::string> faults_;
    std::set<std::string> said_;
};

TEST_F(HostileCalls, OneArgumentAtATime) {
    for (const CallRow& row : call_rows()) {
        World good(row.operands, {});
        const std::string text = run(row, good);
        expect(row.may_be_refused || text.empty() != row.refused, row, "good arguments: " + text);
        const std::vector<std::size_t>& choices = good.picks.choices();
        for (std::size_t place = 0; place < choices.size(); ++place) {
            std::vector<std::size_t> picks(place + 1);
            for (picks[place] = 1; picks[place] < choices[place]; ++picks[place]) {
                World world(row.operands, picks);
                run(row, world);
            }
        }
    }
    expect_entries(ORNIK_TEST_MESSAGES);
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
