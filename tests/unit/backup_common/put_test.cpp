// The put command against a scripted node client.
#include <sys/stat.h>

#include <filesystem>

#include "arguments.h"
#include "control_server.h"
#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/str.h"
#include "program_site.h"
#include "quarn2/info.h"
#include "quarn2_cp2_ledger.h"
#include "quarn2_cp2_put.h"

namespace {

constexpr const char* kSocket = "tmp/quarn2_cp.sock";
constexpr const char* kSlice = "b/2026-11-20.web1.1.dar";
constexpr const char* kInfo = "b/job.info";
constexpr const char* kLocalInfo = "b/2026-11-20.web1.info";

class Put : public ProgramSite {
  protected:
    Put() { Place(kInfo, "type=full\ncreated=2026-11-20 11:58:30\nsize=1000\nbase=x\n"); }

    // Puts the slice with these options. The node client answers PUT with `answer`.
    void Run(Lines words, const std::string& answer) {
        const ControlServer server(kSocket, [&](const std::string& command) {
            if (command.starts_with("PUTLAST")) at_putlast_ = local_files::Load(kLocalInfo);
            return command.starts_with("PUTLAST") ? "OK" : answer;
        });
        words.insert(words.begin(), kSlice);
        try {
            CommandPut(Arguments(words));
        } catch (...) {
            commands_ = server.commands();
            throw;
        }
        commands_ = server.commands();
    }

    static std::string Info() { return local_files::Load(kInfo); }

    Lines commands_;
    std::string at_putlast_;  // content of the local info file at PUTLAST
};

constexpr const char* kUntouched = "type=full\ncreated=2026-11-20 11:58:30\nsize=1000\nbase=x\n";

TEST_F(Put, AsksForTheDeletionOfTheFile) {
    Run({}, "OK name 5");
    EXPECT_EQ(commands_, (Lines{"PUT b/2026-11-20.web1.1.dar DELETE"}));
    EXPECT_EQ(Log(7), (Lines{"5: Put b/2026-11-20.web1.1.dar"}));
    EXPECT_EQ(Info(), kUntouched);
}

TEST_F(Put, NoDeleteSendsTheFileAlone) {
    Run({"--no-delete"}, "OK name 5");
    EXPECT_EQ(commands_, (Lines{"PUT b/2026-11-20.web1.1.dar"}));
}

TEST_F(Put, ThePathIsNormalised) {
    const ControlServer server(kSocket, [](const std::string&) { return "OK name 5"; });
    CommandPut(Arguments({"/srv//backup dir/./a.tgz"}));
    EXPECT_EQ(server.commands(), (Lines{"PUT /srv/backup dir/a.tgz DELETE"}));
    EXPECT_EQ(Log(7), (Lines{"5: Put /srv/backup dir/a.tgz"}));
}

TEST_F(Put, TwoWordsAddToTheSizeAndLeaveTheKeyHashAlone) {
    Place(kInfo, "size=1\nkey_hash=old\ncreated=2026-11-20 12:00:00\n");
    Run({"--info-file", kInfo}, "OK name 1048576");
    EXPECT_EQ(Info(),
              "created=2026-11-20 12:00:00\nduration=0\nfinished=2026-11-20 12:00:00\n"
              "key_hash=old\nsize=1048577");
}

TEST_F(Put, FurtherWordsAreTheKeyHash) {
    Run({"--info-file", kInfo, "--convert"}, "OK name 24 one two");
    EXPECT_EQ(Info(),
              "base=x\ncreated=2026-11-20 11:58:30\nkey_hash=one two\nsize=1024\ntype=full");
}

TEST_F(Put, KeysComeBackInOrderAndUnknownOnesPassThrough) {
    Place(kInfo, "zone=eu\nsize=2\r\n\nalpha=a=b\ncreated=2026-11-20 12:00:00\n");
    Run({"--info-file", kInfo, "--convert"}, "OK name 3");
    EXPECT_EQ(Info(), "alpha=a=b\ncreated=2026-11-20 12:00:00\nsize=5\nzone=eu");
}

TEST_F(Put, AMissingSizeCountsAsNothing) {
    Place(kInfo, "type=full\n");
    Run({"--info-file", kInfo, "--convert"}, "OK name 7");
    EXPECT_EQ(Info(), "size=7\ntype=full");
}

TEST_F(Put, AnAnswerWithoutBytesAddsNothing) {
    Run({"--info-file", kInfo, "--convert"}, "OK name");
    EXPECT_EQ(Info(), "base=x\ncreated=2026-11-20 11:58:30\nsize=1000\ntype=full");
}

TEST_F(Put, LastSliceAndOperationRecordTheStoragePath) {
    for (const char* option : {"--last_slice", "--operation"}) {
        Place(kInfo, kUntouched);
        Run({"--info-file", kInfo, "--convert", option}, "OK /web1//2026-11-20/F.3.dar 24");
        EXPECT_EQ(Info(),
                  "base=x\ncreated=2026-11-20 11:58:30\nlast-slice=web1/2026-11-20/F.3.dar\n"
                  "size=1024\ntype=full");
    }
}

TEST_F(Put, TimesAreStamped) {
    Run({"--info-file", kInfo}, "OK name 24");
    EXPECT_EQ(Info(),
              "base=x\ncreated=2026-11-20 11:58:30\nduration=90\nfinished=2026-11-20 12:00:00\n"
              "size=1024\ntype=full");
}

TEST_F(Put, ConvertKeepsTheOldTimes) {
    Place(kInfo, "created=2026-11-20 11:58:30\nduration=7\nfinished=2026-11-19 00:00:00\nsize=1\n");
    Run({"--info-file", kInfo, "--convert"}, "OK name 1");
    EXPECT_EQ(Info(),
              "created=2026-11-20 11:58:30\nduration=7\nfinished=2026-11-19 00:00:00\nsize=2");
}

TEST_F(Put, AStartTimeThatCannotBeReadIsToldWithItsFileAndLeavesThatAlone) {
    for (const std::string line : {"created=yesterday\n", ""}) {
        const std::string value = line.empty() ? "" : "yesterday";
        Place(kInfo, "size=1\n" + line);
        EXPECT_EQ(TextOf<std::runtime_error>([&] {
                      Run({"--info-file", kInfo}, "OK name 1");
                  }),
                  std::string("info file '") + kInfo + "': the line created= is invalid: '" +
                      value + "' is not a date and time (YYYY-MM-DD HH:MM:SS)");
        EXPECT_EQ(Info(), "size=1\n" + line);
    }
}

TEST_F(Put, ASizeThatCannotGrowIsAnError) {
    for (const std::string size : {"9223372036854775807", "-5"}) {
        const std::string info = "size=" + size + "\ncreated=2026-11-20 11:58:30\n";
        Place(kInfo, info);
        EXPECT_EQ(TextOf<std::runtime_error>([&] {
                      Run({"--info-file", kInfo}, "OK name 5");
                  }),
                  "the info file's size " + size + " cannot be used");
        EXPECT_EQ(Info(), info);
    }
}

TEST_F(Put, TheFinalInfoFileIsNotForEverybody) {
    Place(kInfo, "type=full\ncreated=2026-11-20 11:58:30\narch_password=secret\n");
    const mode_t old = umask(0);
    Run({"--info-file", kInfo, "--isolated"}, "OK name 24");
    umask(old);
    EXPECT_EQ(std::filesystem::status(kLocalInfo).permissions(), std::filesystem::perms(0640));
}

// --- The last file ---

TEST_F(Put, IsolatedSendsTheFinalInfoFileWithoutTheNode) {
    Place(kInfo, "node=n1\nsize=1000\ntype=full\ncreated=2026-11-20 11:58:30\n");
    Run({"--info-file", kInfo, "--isolated"}, "OK name 24 hash");
    const std::string sent =
        "created=2026-11-20 11:58:30\nduration=90\nfinished=2026-11-20 12:00:00\nkey_hash=hash\n"
        "size=1126\ntype=full";
    EXPECT_EQ(sent.size(), 102U);
    EXPECT_EQ(at_putlast_, sent);
    EXPECT_EQ(commands_,
              (Lines{"PUT b/2026-11-20.web1.1.dar DELETE", "PUTLAST b/2026-11-20.web1.info"}));
}

TEST_F(Put, TheNodeComesBackToTheLocalCopyOnly) {
    const std::string job = "node=n1\nsize=1000\n";
    Place(kInfo, job);
    Run({"--info-file", kInfo, "--isolated", "--convert"}, "OK name 24");
    EXPECT_EQ(at_putlast_, "size=1033");
    EXPECT_EQ(local_files::Load(kLocalInfo), "node=n1\nsize=1033");
    EXPECT_EQ(Info(), job);
}

TEST_F(Put, WithoutANodeTheLocalCopyIsWhatWasSent) {
    Place(kInfo, "size=1000\n");
    Run({"--info-file", kInfo, "--isolated", "--convert"}, "OK name 24");
    EXPECT_EQ(local_files::Load(kLocalInfo), "size=1033");
}

TEST_F(Put, SizeCountsTheInfoFileAlsoWhenItsDigitsGrow) {
    std::set<std::size_t> lengths;
    for (const std::int64_t data : {90, 91, 92, 989, 990, 991, 992, 9989, 9990, 9991}) {
        Place(kInfo, "size=0\n");
        Run({"--info-file", kInfo, "--isolated", "--convert"}, "OK name " + str::Str(data));
        const std::int64_t size = data + static_cast<std::int64_t>(at_putlast_.size());
        EXPECT_EQ(at_putlast_, "size=" + str::Str(size));
        lengths.insert(at_putlast_.size());
    }
    EXPECT_EQ(lengths, (std::set<std::size_t>{7, 8, 9, 10}));
}

TEST_F(Put, IsolatedWithoutAnInfoFileIsThePutAlone) {
    Run({"--isolated"}, "OK name 5");
    EXPECT_EQ(commands_, (Lines{"PUT b/2026-11-20.web1.1.dar DELETE"}));
    EXPECT_FALSE(local_files::Has(kLocalInfo));
}

TEST_F(Put, ARefusedPutlastLeavesTheLocalInfoFileWithoutTheNode) {
    Place(kInfo, "node=n1\nsize=1000\n");
    const ControlServer server(kSocket, [](const std::string& command) {
        return command.starts_with("PUTLAST") ? "" : "OK name 24";
    });
    EXPECT_EQ(TextOf<std::runtime_error>([] {
                  CommandPut(Arguments({kSlice, "--info-file", kInfo, "--isolated", "--convert"}));
              }),
              "");
    EXPECT_EQ(local_files::Load(kLocalInfo), "size=1033");
}

// --- Failures ---

TEST_F(Put, AnEmptyAnswerIsAnError) {
    for (const char* answer : {"OK", "OK "}) {
        EXPECT_EQ(TextOf<std::runtime_error>([&] {
                      Run({"--info-file", kInfo}, answer);
                  }),
                  "Command PUT result is empty");
    }
    EXPECT_EQ(Info(), kUntouched);
}

TEST_F(Put, AnAnswerWithoutAFileNameIsAnErrorWithTheRest) {
    EXPECT_EQ(TextOf<std::runtime_error>([&] {
                  Run({"--info-file", kInfo}, "OK  5 hash");
              }),
              "Getting fname from result:'5 hash'");
    EXPECT_EQ(Info(), kUntouched);
}

TEST_F(Put, BytesThatAreNoNumberAreAnError) {
    EXPECT_EQ(TextOf<kro_err::Error>([&] {
                  Run({"--info-file", kInfo}, "OK name many");
              }),
              "'many' is not a whole decimal number");
    EXPECT_EQ(Info(), kUntouched);
}

TEST_F(Put, ARefusedPutLeavesTheInfoFileAlone) {
    EXPECT_EQ(TextOf<std::runtime_error>([&] { Run({"--info-file", kInfo}, ""); }), "");
    EXPECT_EQ(Info(), kUntouched);
}

TEST_F(Put, WithoutANodeClientNothingHappens) {
    EXPECT_EQ(TextOf<std::runtime_error>([] { CommandPut(Arguments({kSlice})); }),
              "Failed to connect to size control server socket");
}

TEST_F(Put, AnInfoFileThatIsMissingIsAnError) {
    EXPECT_EQ(TextOf<kro_err::Error>([&] {
                  Run({"--info-file", "b/none.info"}, "OK name 5");
              }),
              "Failed to open info file 'b/none.info': No such file or directory");
}

TEST_F(Put, TheLastFileIsPutAlsoWhereTheLedgerCannotBeWritten) {
    Place("var/quarn2_cp.ledger/x", "");
    std::filesystem::permissions("var/quarn2_cp.ledger", std::filesystem::perms(0770));
    Run({"--isolated", "--info-file", kInfo}, "OK name 5");
    EXPECT_EQ(commands_.size(), 2U);
}

TEST_F(Put, TheLedgerHasTheInfoFileBeforeItMaySayFinished) {
    Run({"--isolated", "--last_slice", "--info-file", kInfo}, "OK F2026-11-15.web1.tgz 5");
    const LedgerEntry entry = Ledger().Read("F2026-11-15.web1");
    EXPECT_TRUE(str::EndsWith(entry.info, ".info")) << entry.info;
    EXPECT_EQ(entry.info_bytes, static_cast<std::int64_t>(local_files::Load(entry.info).size()));
    EXPECT_TRUE(entry.IsOpen()) << "only the node client ends it";
}

TEST_F(Put, ANameThatCouldBeTakenForAnotherFilesIsRefusedBeforeAnythingIsSent) {
    EXPECT_EQ(
        TextOf<kro_err::Error>([] { CommandPut(Arguments({"b/a.tgz DELETE"})); }),
        "name 'a.tgz DELETE' is not allowed on a storage: it contains a space; rename the file");
}

}  // namespace
