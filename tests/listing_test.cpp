#include "support/tool_run.h"

namespace {

class Listing : public ToolTest {
protected:
    // What follows the start-up lines.
    std::string list() {
        const ToolRun listing = run({"-l"});
        EXPECT_EQ(listing.exitStatus, 0);
        return listing.console.substr(listing.console.find("Available"));
    }
};

TEST_F(Listing, SortsByTypeThenIdentifierAndShowsTheVersionsOfOrvins) {
    bus.orvin(3, {{"version_query", {{"calls", "all"}}}})
        .member(0x80, 16)
        .orvin(2)
        .member(1, 99)
        .member(4, 130)
        .member(9, 17, {{"type_query", {{"calls", "all"}}}});
    EXPECT_EQ(list(),
              "Available devices:\n"
              " 1)  " +
                  orvinId(9) +
                  " Unknown \n"
                  " 2)  " +
                  orvinId(0x80) +
                  " Meridel \n"
                  " 3)  " +
                  orvinId(2) +
                  " Pellix   (hw:00000001, arm:00010000, dsp:00010000, booster arm:00010000, "
                  "api:0000030a, 'Orvin 2')\n"
                  " 4)  " +
                  orvinId(3) +
                  " Pellix   getVersion() failed\n"
                  " 5)  " +
                  orvinId(1) +
                  " Unknown \n"
                  " 6)  " +
                  orvinId(4) + " Hespin  \n");
}

TEST_F(Listing, TakesAMasterThatDoesNotTellItsTypeForAMaster) {
    bus.member(1, 16, {{"type_query", {{"calls", "all"}}}});
    EXPECT_EQ(list(), "Available devices:\n 1)  " + orvinId(1) + " Meridel \n");
}

TEST_F(Listing, EndsWellOnAnEmptyOrAFailingBus) {
    EXPECT_EQ(list(), "Available devices:\n");
    bus.member(1, 1).with("faults", {{"get_members", {{"calls", "all"}}}});
    EXPECT_EQ(list(), "Available devices:\n");
}

TEST_F(Listing, ReadsAtMost63MembersAndNoneThatIsNotThere) {
    const Json tooMany = {{"get_members", {{"calls", "all"}, {"result", 1'000'000}}}};
    bus.member(1, 1).with("faults", tooMany);
    EXPECT_EQ(linesOf(list()).size(), 2U);
    bus = BusBuilder();
    for (int number = 1; number <= 70; ++number) {
        bus.member(number, 1);
    }
    EXPECT_EQ(linesOf(list()).size(), 64U);
    bus.with("faults", tooMany);
    EXPECT_EQ(linesOf(list()).size(), 64U);
}

TEST_F(Listing, ShowsTheFirst21CharactersOfAName) {
    bus.orvin(1);
    bus.last()["name"] = "0123456789abcdefghijklmnopqrstuv";  // no room for a terminating zero
    EXPECT_NE(list().find(", '0123456789abcdefghijk')\n"), std::string::npos);
}

TEST_F(Listing, PrintsTheVersionsOfOneOrvinOrWhyItCannot) {
    bus.orvin(1).orvin(2, {{"version_query", {{"calls", "all"}}}});
    const ToolRun known = run({"-V", "-d", orvinId(1)});
    EXPECT_EQ(known.exitStatus, 0);
    EXPECT_TRUE(known.printed("proceeding.\n1 10000 10000 30a Orvin 1\n"));

    for (const int silent : {2, 3}) {
        const ToolRun run = this->run({"-V", "-d", orvinId(silent)});
        EXPECT_EQ(run.exitStatus, 255);
        EXPECT_TRUE(run.printed("proceeding.\nError while reading orvin version\n"));
    }
    const ToolRun invalid = run({"-V", "-d", "00:11"});
    EXPECT_EQ(invalid.exitStatus, 255);
    EXPECT_TRUE(invalid.printed("Error: invalid vanid: 00:11\n"));
    EXPECT_EQ(invalid.calls("OrvinInfo"), 0);
}

}  // namespace
