#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

/// What the processes of one run have agreed on. Each gets it on its command line.
struct Terms
{
    /// How the ends talk: oneWay, roundTrip or idle.
    std::string pattern = "oneWay";
    /// In which of its ways the transport is used; empty if it has only one.
    std::string variant;
    /// 0 sends, 1 and above receive.
    int rank = 0;
    /// How many processes receive; each of them gets every message.
    int receivers = 1;
    /// Bytes of a message.
    std::uint64_t size = 64;
    /// Connections between the sender and each receiver, used in turn.
    int connections = 1;
    /// How many of these carry anything.
    int busy = 1;
    /// How many messages a sender may be ahead of what was received, 0 for as many as the transport
    /// takes. Where a message costs much more to receive than to send, as many as that would take
    /// minutes.
    std::uint64_t window = 0;
    /// How long the measured part takes.
    double seconds = 0.5;
    /// What the messages are cut from; a pattern is made up if there is no file.
    std::string dataFile;
    /// Where the processes of the run find each other.
    std::string folder;

    /// As a command line. The rank is left out where the transport's own launcher gives it.
    std::vector<std::string> toArguments(bool withRank) const;

    /// The inverse; prints a usage and ends the process for anything else.
    static Terms parse(int argc, char** argv);
};

} // namespace bench
