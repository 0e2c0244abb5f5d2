#ifndef RECORDING_LINES_H
#define RECORDING_LINES_H

#include <cstdint>
#include <string>
#include <vector>

#include "talm/bus_call.h"

namespace recording {

using talm::Call;
using Microseconds = std::int64_t;

// Time and thread of a call or a callback.
struct Moment {
    Microseconds at = 0;       // when it began, since the start of the recording
    Microseconds took = 0;     // its duration
    std::uint32_t thread = 1;  // numbered in the order of their first appearance
};

// Formats calls and callbacks as the lines of a recording, in the order in which they are added.
// Not thread-safe.
class Lines {
public:
    // Adds the first line: beginningOfHeader, the time, and the command line of this process.
    void addHeader(const std::string& invocation);
    // The version of the format and, unless it is empty, the invocation of orvin-record.
    static std::string beginningOfHeader(const std::string& invocation);

    void add(const Moment& moment, const Call& call);

    // Adds a transfer callback with result 0. All acknowledgements of a packet share one line.
    void addAcknowledgement(const Moment& moment, const vanid_t& device, std::uint32_t packet);

    // Returns the lines since the last call. Keeps an incomplete line of acknowledgements back for
    // at most three calls, so that later ones can join it; the last call returns everything.
    std::string take(bool isLast);

private:
    std::uint32_t numberOf(const vanid_t& device);
    void finishAcknowledgements();

    std::string text;
    std::vector<vanid_t> devices;  // the index is the number of the device minus 1
    std::size_t lastDevice = 0;    // index of the last device that numberOf found

    // The acknowledgements for the next line.
    struct Acknowledgements {
        Moment first;
        Microseconds last = 0;
        std::uint32_t packet = 0;
        std::string by;         // device numbers, each followed by a comma; empty: no line pending
        std::string after;      // microseconds, each followed by a comma
        std::string threads;    // one character for each acknowledgement
        bool oneThread = true;  // all came on the same thread
        int timesLeft = 0;      // calls of take() that left them pending
    };
    Acknowledgements pending;
    std::string lastBy;  // the value of "by" in the last line that has it
    int timesTaken = 0;  // calls of take()
};

}  // namespace recording

#endif
