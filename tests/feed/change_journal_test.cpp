// Notes of changes in files, some of them hostile: which ones are trusted, and what they say a killed program has left.

#include "gpu_feed/change_journal.h"

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

namespace {

using namespace testing;
using namespace gpu_feed;
namespace fs = std::filesystem;
using Kind = TuningChange::Kind;

TEST(ChangeJournalTest, OnlyCompleteNotesOfEndedProgramsInFilesThatNobodyElseWritesAreBelieved) {
    const fs::path folder = fs::path(TempDir()) / ("journal_" + std::to_string(getpid())) / "new";
    const ChangeJournal journal(folder);
    const TuningChange reset{Kind::ResetPower};
    const TuningRecord record{
        "", {"Board \x1b[2J", 3, "GPU-../1", "", "", "", "", 0}, reset, {Kind::SetPower, {}, 250.0}, reset};
    EXPECT_EQ(journal.Note(record, {Kind::SetPower, {}, 300.5}), "");
    const pid_t child = fork();
    if (child == 0) _exit(journal.Note(record, {Kind::SetPower, {}, 200.5}).empty() ? 1 : 0);
    int status = 0;
    EXPECT_TRUE(waitpid(child, &status, 0) == child && status == 0) << "another program has changed the same";
    EXPECT_THAT(journal.LeftChanges(), IsEmpty()) << "this program still runs";
    EXPECT_EQ(journal.Remove(record), "");
    ASSERT_THAT(journal.LeftChanges(), SizeIs(1));
    const NotedChange left = journal.LeftChanges()[0];
    EXPECT_TRUE(left.Before == reset && left.Earlier.Watts == 250.0 && left.Set.Watts == 200.5);
    EXPECT_THAT(left.Device.Name + left.Device.Uuid, StrEq("Board ?[2JGPU-..?1"));

    const fs::path file = fs::directory_iterator(folder)->path();
    std::ifstream stream(file);
    const std::string text(std::istreambuf_iterator<char>(stream), {});
    const auto countAfter = [&](const std::string& changed) {
        std::ofstream(file) << changed;
        return journal.LeftChanges().size();
    };
    EXPECT_EQ(countAfter(text), 1);
    const auto with = [&text](const std::string& part, const char* fault) {
        return std::string(text).replace(text.find(part), part.size(), fault);
    };
    // clang-format off
    const std::pair<const char*, const char*> faults[] = {
        {"change 1", "change 2"}, {"process ", "process -"}, {"gpu 3", "gpu 4294967296"}, {"name ", "name \x1b"},
        {"before reset-power", "before reset-clocks"}, {"set-power 200500", "explode"}, {"200500\n", "200500\n\n"}};
    // clang-format on
    for (const auto& [part, fault] : faults) {
        EXPECT_EQ(countAfter(with(part, fault)), 0) << part << ' ' << fault;
    }
    EXPECT_EQ(countAfter(text), 1);
    fs::permissions(file, fs::perms(0664));
    EXPECT_THAT(journal.LeftChanges(), IsEmpty());
    fs::permissions(file, fs::perms(0644));
    fs::rename(file, folder / "other");
    fs::create_symlink(folder / "other", file);
    EXPECT_THAT(journal.LeftChanges(), IsEmpty());
    fs::remove(file);
    EXPECT_EQ(countAfter(with("boot ", "boot x")), 0);
    EXPECT_FALSE(fs::exists(file)) << "of another boot";
    fs::remove_all(folder.parent_path());
}

}  // namespace
