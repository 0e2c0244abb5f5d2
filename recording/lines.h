#ifndef RECORDING_LINES_H
#define RECORDING_LINES_H

#include <cstdint>
#include <string>
#include <vector>

#include "talm/bus_call.h"

namespace recording {

using talm::Call;
using Microseconds = std::int64_t;

// When a call or a callback began, in microseconds since the recording did, and how long it took.
struct Moment {
    Microseconds at = 0;
    Microseconds took = 0;
    std::uint32_t thread = 1;  // counted as the threads first appear
};

// Writes calls and callbacks as the lines of a recording, in the order in which they are added. One
// thread at a time.
class Lines {
public:
    // The first line: its beginning, which is the format's version and, unless it is empty, the
    // invocation of orvin-record; then the time and this process's command line.
    void addHeader(const std::string& invocation);
    static std::string beginningOfHeader(const std::string& invocation);

    void add(const Moment& moment, const Call& call);

    // A transfer callback with result 0. These share a line, packet by packet.
    void addAcknowledgement(const Moment& moment, const vanid_t& device, std::uint32_t packet);

    // The lines that were added since the last time. Acknowledgements that may still get company
    // stay for a few times, unless it is the last one.
    std::string take(bool isLast);

private:
    std::uint32_t numberOf(const vanid_t& device);
    void finishAcknowledgements();

    std::string text;
    std::vector<vanid_t> devices;  // those that have a number, from 1 on
    std::size_t lastDevice = 0;    // the index of the one that was looked up last

    // The acknowledgements that will share the next line.
    struct Acknowledgements {
        Moment first;
        Microseconds last = 0;
        std::uint32_t packet = 0;
        std::string by;       // numbers with a comma behind each; empty: there are none
        std::string after;    // microseconds, likewise
        std::string threads;  // a character for each
        bool oneThread = true;
        int timesLeft = 0;  // so often, take() did not take them
    };
    Acknowledgements pending;
    std::string lastBy;  // of the last line that has it
    int timesTaken = 0;
};

}  // namespace recording

#endif
