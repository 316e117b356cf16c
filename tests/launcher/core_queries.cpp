/* Process and system queries, and the completion event. */

#include <gtest/gtest.h>

#include <PlatformTesting.h>
#include <stdlib.h>
#include <string.h>

#include "Common/Log.h"
#include "Launcher.h"
#include "core_support.h"

using core_test::FunctionsAndMessages;
using core_test::NamedProcess;
using core_test::ReadLog;
using core_test::TempDir;
using Lines = std::vector<std::string>;

namespace {

// Captures the log lines written between its creation and Lines().
class LogCapture {
  public:
    LogCapture() : file_(dir_ / "capture.log") { InitLogSystem(file_.c_str()); }
    ~LogCapture() { CloseLogSystem(); }
    Lines Take() {
        CloseLogSystem();
        Lines lines = FunctionsAndMessages(ReadLog(file_));
        core_test::fs::remove(file_);
        InitLogSystem(file_.c_str());
        return lines;
    }

  private:
    TempDir dir_;
    std::string file_;
};

// CheckProcessExists keeps the table it fetches; a test that asks again starts afresh.
void ForgetProcessTable() {
    free(pprocesslist);
    pprocesslist = NULL;
    processcount = 0;
}

bool TableHolds(struct kinfo_proc* table, size_t count, pid_t pid, const char* command) {
    for (size_t i = 0; i < count; i++) {
        if (table[i].kp_proc.p_pid == pid && strcmp(table[i].kp_proc.p_comm, command) == 0) {
            return true;
        }
    }
    return false;
}

class ReleaseQuery : public ::testing::Test {
  protected:
    void TearDown() override {
        PlatSetOSRelease(NULL);
        PlatSetOSReleaseQueryFails(FALSE);
    }
};

} // namespace

TEST(ProcessTable, HoldsWholeRecordsOfRunningProcesses) {
    static_assert(sizeof(struct kinfo_proc) == 648, "the kernel's record size");
    TempDir dir;
    NamedProcess child(dir.path(), "AutoSetup");
    ASSERT_TRUE(child.running());

    struct kinfo_proc* table = NULL;
    size_t count = 12345;
    ASSERT_EQ(0, GetProcessList(&table, &count));
    ASSERT_NE(nullptr, table);
    EXPECT_GE(count, 2u);
    EXPECT_TRUE(TableHolds(table, count, child.pid(), "AutoSetup"));
    EXPECT_TRUE(TableHolds(table, count, getpid(), "core_queries"));
    free(table);
}

TEST(ProcessTableDeathTest, HolderMustBeEmpty) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    struct kinfo_proc dummy;
    struct kinfo_proc* holder = &dummy;
    size_t count = 0;
    EXPECT_DEATH(GetProcessList(&holder, &count), "\\*procList == NULL");
    EXPECT_DEATH(GetProcessList(NULL, &count), "procList != NULL");
    struct kinfo_proc* empty = NULL;
    EXPECT_DEATH(GetProcessList(&empty, NULL), "procCount != NULL");
}

TEST(CheckProcessExists, MatchesTheExactCommandNameOnly) {
    LogCapture log;
    TempDir dir;

    // Neither another case nor a longer name that begins with it counts.
    {
        NamedProcess lower(dir / "lower", "autosetup");
        NamedProcess longer(dir / "longer", "AutoSetupHelper");
        ASSERT_TRUE(lower.running() && longer.running());
        ForgetProcessTable();
        EXPECT_FALSE(CheckProcessExists("AutoSetup"));
        EXPECT_GT(processcount, 0u);
        EXPECT_EQ(Lines(), log.Take());
    }

    NamedProcess exact(dir / "exact", "AutoSetup");
    ASSERT_TRUE(exact.running());
    ForgetProcessTable();
    EXPECT_TRUE(CheckProcessExists("AutoSetup"));
    EXPECT_EQ(Lines({"CheckProcessExists --- AutoSetup", "CheckProcessExists --- -----------------"}),
              log.Take());
    EXPECT_NE(nullptr, pprocesslist);
    ForgetProcessTable();
}

TEST(IsProcessExists, MatchesProcessManagerNames) {
    EXPECT_FALSE(IsProcessExists(NULL));

    TempDir dir;
    NamedProcess setup(dir / "a", "AutoSetup");
    NamedProcess longer(dir / "b", "AutoSetupAssistant");
    ASSERT_TRUE(setup.running() && longer.running());
    EXPECT_TRUE(IsProcessExists("AutoSetup"));
    EXPECT_TRUE(IsProcessExists("AutoSetupAssistant"));
    EXPECT_FALSE(IsProcessExists("autosetup"));
    EXPECT_FALSE(IsProcessExists("AutoSetu"));
    EXPECT_FALSE(IsProcessExists("NoSuchProcessAnywhere"));
    // 33 bytes fit the compare buffer; longer names never match anything.
    EXPECT_FALSE(IsProcessExists("AutoSetupAssistantAutoSetupAssist"));
}

TEST(IsProcessExists, LongNamesCompareAsEmpty) {
    TempDir dir;
    // A name of 34 bytes or more leaves the compare buffer empty: only "" matches it.
    std::string longName(40, 'L');
    NamedProcess longer(dir.path(), longName);
    ASSERT_TRUE(longer.running());
    EXPECT_FALSE(IsProcessExists(longName.c_str()));
    EXPECT_FALSE(IsProcessExists(longName.substr(0, 33).c_str()));
}

TEST_F(ReleaseQuery, MajorNumberBelowNineIsOlderThan105) {
    LogCapture log;
    struct Case {
        const char* release;
        bool older;
        Lines messages;
    };
    const Case cases[] = {
        {"8.11.1", true, {}},
        {"9.0.0", false, {}},
        {"10.8.0", false, {}},
        {"1.2", true, {}},
        {"-1.0", true, {}},
        {"Darwin", true, {}}, // a first token that is no number reads as 0
        {"", false, {"IsOldThanMacOS105 --- get kernelVersion failed"}},
        {"...", false, {"IsOldThanMacOS105 --- get kernelVersion failed"}},
    };
    for (const Case& c : cases) {
        PlatSetOSRelease(c.release);
        EXPECT_EQ(c.older, IsOldThanMacOS105()) << "release \"" << c.release << "\"";
        EXPECT_EQ(c.messages, log.Take()) << "release \"" << c.release << "\"";
    }

    // An unanswered query leaves the length at 0.
    PlatSetOSReleaseQueryFails(TRUE);
    EXPECT_FALSE(IsOldThanMacOS105());
    EXPECT_EQ(Lines({"IsOldThanMacOS105 --- sysctl1 failed", "IsOldThanMacOS105 --- len invalid"}),
              log.Take());
}

TEST(CompletionEvent, SignalsAddUpAndWaitsTakeOneEach) {
    SetEvent("QV_EVENT");
    EXPECT_FALSE(Wait(0));
    EXPECT_TRUE(Notify());
    EXPECT_TRUE(Notify());
    EXPECT_TRUE(Wait(static_cast<uint32_t>(-1)));
    EXPECT_TRUE(Wait(0));
    EXPECT_FALSE(Wait(0));

    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(Wait(100));
    auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(90));
    StopEvent();
}

TEST(CompletionEvent, MinusOneWaitsWithoutLimit) {
    SetEvent("QV_EVENT");
    // -1 is no limit, not a duration of one microsecond: the signal comes later.
    std::thread notifier([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        Notify();
    });
    EXPECT_TRUE(Wait(0xFFFFFFFFu));
    notifier.join();
    StopEvent();
}

TEST(CompletionEvent, DeletedOrMissingEventAnswersFalse) {
    SetEvent("QV_EVENT");
    EXPECT_TRUE(Notify());
    StopEvent();
    EXPECT_FALSE(Notify());
    EXPECT_FALSE(Wait(0));

    m_semaphore = NULL;
    EXPECT_FALSE(Notify());
    EXPECT_FALSE(Wait(static_cast<uint32_t>(-1)));
    StopEvent();
}
