#include "support/tool_run.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>

#include "app/run.h"
#include "core/run_config.h"
#include "sim/virtual_time.h"
#include "status/message_writer.h"
#include "support/system_hooks.h"

namespace {

constexpr std::size_t kHeaderSize = 36;

// The link wait's failure leaves the writer to the end of the process, which is not here.
void dropMessageWriter() {
    try {
        delete MessageWriter::instance();
    } catch (const std::runtime_error&) {
        // there is none
    }
}

// A pipe in place of standard output, read before every sleep: what a reader of the tool has by
// then.
class Console {
public:
    Console() {
        std::fflush(stdout);
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_NONBLOCK), 0);
        dup2(ends[1], STDOUT_FILENO);
        close(ends[1]);
        reader_ = ends[0];
        sim::VirtualTime::instance().beforeSleep([this](sim::Microseconds duration) {
            receive();
            std::fflush(stdout);
            // A packet is sent again without a flush, between two of its polls.
            const std::string late = receive();
            EXPECT_TRUE(late.empty() || (late == "#" && duration == kPoll)) << "late: " << late;
        });
    }
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;
    ~Console() {
        sim::VirtualTime::instance().beforeSleep({});
        std::fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        close(reader_);
    }

    std::string finish() {
        std::fflush(stdout);
        receive();
        return text_;
    }

private:
    static constexpr sim::Microseconds kPoll = 1'000;

    std::string receive() {
        char buffer[4096];
        const std::size_t before = text_.size();
        for (ssize_t count = 0; (count = read(reader_, buffer, sizeof buffer)) > 0;) {
            text_.append(buffer, static_cast<std::size_t>(count));
        }
        return text_.substr(before);
    }

    std::string text_;
    const int saved_ = dup(STDOUT_FILENO);
    int reader_ = -1;
};

}  // namespace

int ToolRun::calls(const std::string& call) const {
    int count = 0;
    for (const std::string& line : trace) {
        constexpr std::size_t kTimeWidth = 14;
        count += line.compare(kTimeWidth, call.size(), call) == 0 ? 1 : 0;
    }
    return count;
}

std::string captureOutput(const std::function<void()>& action) {
    Console console;
    action();
    return console.finish();
}

ToolTest::ToolTest() {
    sim::VirtualTime::instance().reset();
    bus.with("trace", "trace.txt").with("store", "store");
}

ToolTest::~ToolTest() {
    SystemHooks::instance() = SystemHooks();
}

std::string ToolTest::image(const std::string& name, std::uint32_t target, std::uint32_t version,
                            std::size_t contentSize) {
    std::string path = directory / name;
    writeFile(path, makeImage(target, version, contentSize));
    return path;
}

ToolRun ToolTest::run(const std::vector<std::string>& arguments) {
    const std::string busFile = directory / "bus.json";
    writeText(busFile, bus.text());
    std::vector<std::string> all = {"-c", "sim:" + busFile};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return runBare(all);
}

ToolRun ToolTest::upgradeAll(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"-B", "-m", directory / "status"});
    return run(arguments);
}

ToolRun ToolTest::runBare(const std::vector<std::string>& arguments) {
    std::vector<std::string> copies = {"/usr/bin/orvin-firmware-upgrade"};
    copies.insert(copies.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& copy : copies) {
        argv.push_back(copy.data());
    }
    argv.push_back(nullptr);

    ToolRun result;
    const auto watch = SystemHooks::instance().beforeRename;
    SystemHooks::instance().beforeRename = [&](const std::string& from, const std::string& to) {
        if (to == directory / "status") {
            result.messages.push_back(readText(from));
        }
        if (watch) {
            watch(from, to);
        }
    };
    const sim::Microseconds start = sim::VirtualTime::instance().now();
    result.console = captureOutput([&] {
        RunConfig config;
        result.exitStatus = ::run(config, static_cast<int>(copies.size()), argv.data()) & 0xff;
    });
    result.duration = sim::VirtualTime::instance().now() - start;
    SystemHooks::instance().beforeRename = watch;
    dropMessageWriter();
    result.trace = linesOf(readText(directory / "trace.txt"));
    std::filesystem::remove(directory / "trace.txt");
    return result;
}

std::uint32_t ToolTest::storedVersion(std::size_t member, const char* processor) const {
    const Json json = Json::parse(readText(directory / "bus.json"));
    const Json& version = json["members"][member]["versions"][processor];
    return version.is_string()
               ? static_cast<std::uint32_t>(std::stoul(version.get<std::string>(), nullptr, 16))
               : version.get<std::uint32_t>();
}

bool ToolTest::installed(int orvin, const char* processor, const std::string& imagePath) const {
    const std::string stored = directory / ("store/" + orvinId(orvin) + '.' + processor);
    return std::filesystem::exists(stored) &&
           readText(stored) == readText(imagePath).substr(kHeaderSize);
}
