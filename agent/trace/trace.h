// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_TRACE_TRACE_H_
#define AGENT_TRACE_TRACE_H_

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "trace/capture.h"

/*
 * The trace of a world: one record for each thing that happens there, in the order in which it
 * happened, whichever process tells of it. Each record is written at once and in one piece, so that
 * nothing is lost with a process that is killed.
 */

namespace sim {

/** The fields of a record, in the order in which they are written. */
using Fields = nlohmann::ordered_json;

enum class TraceFormat {
  kWorld,    // JSON Lines, for the world itself: ends with a record "full" beyond kMostTraceBytes
  kLines,    // JSON Lines
  kWords,    // a line of words for people
  kCapture,  // packets; see capture.h
};

/** A format as a word, and back. Throws std::runtime_error for another word. */
const char* NameOf(TraceFormat format);
TraceFormat TraceFormatOf(const std::string& name);

/** What a world keeps of its trace: a client that never rests must not fill the disk. */
constexpr std::int64_t kMostTraceBytes = 64 << 20;

/** Where records go. The descriptor is borrowed, and must append. */
struct TraceSink {
  int fd = -1;
  TraceFormat format = TraceFormat::kLines;
};

/**
 * Sets where this process's records go; without it, nowhere. The first one, which all processes of a
 * world share, keeps their records in order.
 */
void OpenTrace(std::vector<TraceSink> sinks);

/** Whether records or packets go anywhere. */
bool Tracing();

/** Writes a record: when, what, and the fields. Texts need not be UTF-8. On any thread. */
void Trace(const char* what, const Fields& fields = Fields::object());

/**
 * Ends a line in the middle of which a process was killed, so that the next record has a line of its
 * own. For whoever has seen that process's end.
 */
void EndTornRecord();

/** Writes what went over a socket to the captures. On any thread. */
void Capture(const Packet& packet, std::string_view content);

/** The last number of a client in a world's trace; 0 if there is none. */
int LastClientIn(const std::string& trace_file);

}  // namespace sim

#endif  // AGENT_TRACE_TRACE_H_
