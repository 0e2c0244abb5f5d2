#include "image/image_set.h"

#include "support/tool_run.h"

namespace {

class ImageSet : public ToolTest {};

TEST_F(ImageSet, RunsArmImagesInReverseThenTheOthersInOrder) {
    const std::string a1 = image("a1", kArm), a2 = image("a2", kArm);
    const std::string d1 = image("d1", kDsp), b1 = image("b1", kBooster);
    std::list<std::string> images = {a1, d1, a2, b1};
    orderImages(images);
    EXPECT_EQ(images, (std::list<std::string>{a2, a1, d1, b1}));
}

TEST_F(ImageSet, CountsADeviceOnceHoweverManyImagesItTakes) {
    bus.orvin(1).orvin(2);
    const std::string arm = image("arm", kArm);
    const ToolRun run = upgradeAll(
        {image("dsp", kDsp), arm, image("booster", kBooster), arm, image("arm2", kArm, 7)});
    EXPECT_EQ(run.exitStatus, 2);
    EXPECT_EQ(storedVersion(0, "arm"), kNewVersion);
    EXPECT_EQ(storedVersion(1, "dsp"), kNewVersion);
    EXPECT_EQ(storedVersion(1, "booster_arm"), kNewVersion);
    EXPECT_TRUE(installed(1, "booster_arm", directory / "booster"));
    EXPECT_EQ(occurrences(run.console, "Orvin " + orvinId(1) + " is already up to date.\n"), 1);
}

TEST_F(ImageSet, ReportsAnUnusableImageTwiceAndGoesOnWithTheOthers) {
    bus.orvin(1);
    const std::string missing = directory / "missing";
    const ToolRun run = upgradeAll({missing, "", image("unknown", 0x203), image("arm", kArm)});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(occurrences(run.console, "Error in '" + missing + "': No such file or directory\n"),
              2);
    EXPECT_EQ(occurrences(run.console, "Downloading image " + missing + "...\n"), 1);
    EXPECT_TRUE(run.printed("Downloading image ...\n"));
    EXPECT_TRUE(run.printed("Downloading image " + directory / "unknown" + "...\nDownloading"));
    EXPECT_EQ(storedVersion(0, "arm"), kNewVersion);
}

TEST_F(ImageSet, EndsWithTheFirstImageThatFails) {
    bus.orvin(1, {{"keeps_old_version", "always"}}).orvin(2);
    const ToolRun run = upgradeAll({image("dsp", kDsp), image("arm", kArm)});
    EXPECT_EQ(run.exitStatus, 139);
    EXPECT_FALSE(run.printed("Downloading image " + directory / "dsp"));
    EXPECT_EQ(storedVersion(1, "arm"), kNewVersion);
    EXPECT_EQ(storedVersion(1, "dsp"), kOldVersion);
}

}  // namespace
