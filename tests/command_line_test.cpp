#include "app/command_line.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/run_config.h"

namespace {

struct Parsed {
    bool runnable = false;
    RunConfig config;
};

Parsed parse(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "tool");
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    Parsed parsed;
    parsed.config.programPath = argv[0];
    parsed.runnable =
        parseCommandLine(parsed.config, static_cast<int>(arguments.size()), argv.data());
    return parsed;
}

TEST(CommandLine, AcceptsJustTheCombinationsThatDescribeAMode) {
    const struct {
        std::vector<std::string> arguments;
        bool runnable;
    } cases[] = {
        {{}, false},
        {{"-d", "id", "image"}, true},
        {{"-d", "id"}, false},
        {{"-d", "", "image"}, false},
        {{"-B", "image"}, true},
        {{"-B"}, false},
        {{"-B", "-d", "id", "image"}, true},
        {{"image"}, false},
        {{"-V", "-d", "id"}, true},
        {{"-V"}, false},
        {{"-V", "-B", "-d", "id"}, false},
        {{"-l"}, true},
        {{"-l", "-c", "uri", "-d", "id", "image"}, true},
        {{"-l", "-B"}, false},
        {{"-l", "-V", "-d", "id"}, false},
        {{"-l", "-x"}, false},
        {{"-l", "-c"}, false},
        {{"-B", "--", "-image"}, true},
        {{"-B", "-image"}, false},
    };
    for (const auto& example : cases) {
        EXPECT_EQ(parse(example.arguments).runnable, example.runnable)
            << testing::PrintToString(example.arguments);
    }
}

TEST(CommandLine, TakesOptionsAndImagesInAnyOrderAndTheLastValueOfAnOption) {
    const Parsed parsed = parse({"b.img", "-c", "one", "-p", "a.img", "-B", "-c", "two", "-f", "-D",
                                 "-m", "status", "-B", "--", "-c"});
    EXPECT_TRUE(parsed.runnable);
    EXPECT_EQ(parsed.config.imageFiles, (std::list<std::string>{"b.img", "a.img", "-c"}));
    EXPECT_EQ(parsed.config.connection, "two");
    EXPECT_EQ(parsed.config.messageFile, "status");
    EXPECT_TRUE(parsed.config.broadcast && parsed.config.pretend && parsed.config.force &&
                parsed.config.debug);
}

}  // namespace
