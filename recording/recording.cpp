#include "recording/recording.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace recording {

namespace {

constexpr std::chrono::milliseconds kBetweenWrites{200};
constexpr std::chrono::seconds kLongestWrite{5};
constexpr std::size_t kUsualBatch = 10'000;
constexpr std::size_t kMostInMemory = 1'000'000;  // some 50 MB, if the disk does not answer

// Blocks all signals in threads that start during its lifetime: signals belong to the recorded
// program, and an interrupted write would end the recording.
class NoSignals {
public:
    NoSignals() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
    }
    ~NoSignals() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }

private:
    sigset_t before{};
};

constexpr mode_t kMode = 0666;  // before the umask

}  // namespace

void complain(const std::string& line) {
    pollfd output{STDERR_FILENO, POLLOUT, 0};
    if (poll(&output, 1, 0) == 1 && (output.revents & POLLOUT) != 0) {
        static_cast<void>(::write(STDERR_FILENO, line.data(), line.size()) < 0);
    }
}

std::uint32_t threadNumber() {
    static std::atomic<std::uint32_t> last{0};
    static thread_local std::uint32_t number = 0;
    return number != 0 ? number : (number = ++last);
}

Recording::Recording(const std::string& pathOfFile, const std::string& invocation)
    : path(pathOfFile),
      // O_NONBLOCK: opening a pipe does not wait for a reader. Writing may block.
      file(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_CLOEXEC, kMode)) {
    if (!file.isOpen()) {
        throw std::system_error(errno, std::generic_category(), "cannot be opened");
    }
    if (flock(file.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        throw std::runtime_error("another run is being recorded in it");
    }
    fcntl(file.get(), F_SETFL, O_APPEND);
    if (!invocation.empty()) {
        emptyUnlessBegunBy(invocation);
    }
    pending.reserve(kUsualBatch);
    batch.reserve(kUsualBatch);
    lines.addHeader(invocation);
    const NoSignals noSignals;
    writer = std::thread(&Recording::runWriter, this);
}

Recording::~Recording() {
    finish();
    writer.join();
}

// Needs the lock, so that no other run is recording in the file. A command may start the tool
// several times; each run recognises a file of the same command by its first line.
void Recording::emptyUnlessBegunBy(const std::string& invocation) const {
    struct stat status {};
    if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return;
    }
    const std::string expected = Lines::beginningOfHeader(invocation);
    std::string found(expected.size(), '\0');
    const FileDescriptor reader(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const ssize_t count = ::read(reader.get(), found.data(), found.size());
    const bool isSame = count == static_cast<ssize_t>(expected.size()) && found == expected;
    if (!isSame && ftruncate(file.get(), 0) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot be emptied");
    }
}

void Recording::append(const Moment& moment, const Call& call) {
    Entry entry{moment, std::make_unique<const Call>(call), {}, 0};
    append(std::move(entry));
}

void Recording::appendAcknowledgement(const Moment& moment, const vanid_t& device,
                                      std::uint32_t packet) {
    append({moment, nullptr, device, packet});
}

void Recording::append(Entry entry) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (state != State::Open) {
            return;
        }
        if (pending.size() < kMostInMemory) {
            pending.push_back(std::move(entry));
            return;
        }
    }
    fail("it is not written fast enough");
}

void Recording::fail(const std::string& reason) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (state != State::Open && state != State::Finishing) {
            return;
        }
        state = State::Failed;
    }
    complain("recording '" + path + "' ends: " + reason + '\n');
}

void Recording::finish() {
    std::unique_lock<std::mutex> lock(mutex);
    if (state == State::Open) {
        state = State::Finishing;
    }
    changed.notifyAll();
    changed.waitFor(lock, kLongestWrite, [this] { return state == State::Finished; });
}

void Recording::runWriter() {
    State seen = State::Open;
    while (seen == State::Open) {
        seen = takeBatch();
        if (seen != State::Failed) {
            writeBatch(seen == State::Finishing);
        }
        batch.clear();
    }
    const std::lock_guard<std::mutex> lock(mutex);
    state = State::Finished;
    changed.notifyAll();
}

Recording::State Recording::takeBatch() {
    std::unique_lock<std::mutex> lock(mutex);
    changed.waitFor(lock, kBetweenWrites, [this] { return state != State::Open; });
    batch.swap(pending);
    return state;
}

void Recording::writeBatch(bool isLast) {
    try {
        for (const Entry& entry : batch) {
            if (entry.call) {
                lines.add(entry.moment, *entry.call);
            } else {
                lines.addAcknowledgement(entry.moment, entry.device, entry.packet);
            }
        }
        if (!write(lines.take(isLast))) {
            fail(std::strerror(errno));
        }
    } catch (const std::exception& error) {
        fail(error.what());
    }
}

// On failure, returns false with errno set.
bool Recording::write(const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t count = ::write(file.get(), &text[done], text.size() - done);
        if (count < 0) {
            return false;
        }
        done += static_cast<std::size_t>(count);
    }
    return true;
}

}  // namespace recording
