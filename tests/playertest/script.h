// The state of the scripted test demuxer, shared between the plugin and the
// test program (which reaches it through the demuxer's `state`).
//
// A script is a text file with the extension "pscript", one directive a
// line:
//   bitrate <bits/s>          preroll <ms>         fixedpreroll <ms>
//   flags <demuxer flags>     seekable <0|1>       header <parseheader result>
//   audio <codec> <rate> <channels> <duration ms>
//   video <codec> <width> <height> <frame rate field> <duration ms>
//   packet <stream slot> <pts us> <size> [<flags> [<fill byte>]]
//   end <parse result after the last packet>  (4 when absent)
//   hold                      after the last packet, parse gives 0 and no packet
//   seekback <us>             seeks go to the first packet at or after position - us
//   gate                      parseheader returns only once `gate_open` is set
#pragma once

#include <travik/demuxer.h>

#include <atomic>
#include <cstdint>

namespace script_demuxer {

struct Packet {
  int32_t stream;
  int64_t pts;
  int32_t size;
  uint32_t flags;
  uint8_t fill;
};

const int32_t kMaxPackets = 4096;
const int32_t kMaxControls = 64;

struct State {
  travik_demuxer *demuxer;
  travik_stream streams[4];
  int32_t stream_count;
  int32_t header_result;
  int32_t end_result;
  bool hold;
  int64_t seek_back;  // us: seeks land this much before the position
  bool gated;
  std::atomic<bool> at_gate;    // parseheader is waiting
  std::atomic<bool> gate_open;
  Packet packets[kMaxPackets];
  int32_t packet_count;
  std::atomic<int32_t> next;             // index of the next packet to give out
  std::atomic<int32_t> seeks;
  std::atomic<int64_t> last_seek;        // microseconds
  std::atomic<int32_t> last_seek_flags;
  std::atomic<int32_t> controls[kMaxControls];
  std::atomic<int32_t> control_count;
};

}  // namespace script_demuxer
