// A demuxer plugin that plays a script (see script.h): the test decides the
// streams, packets, header and parse results, and sees seeks and controls.
#include <travik/io.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "script.h"

namespace {

using script_demuxer::State;

std::string read_all(travik_io *input) {
  std::string text;
  char buffer[4096];
  for (;;) {
    int32_t got = travik_io_read(input, buffer, sizeof buffer);
    if (got <= 0) break;
    text.append(buffer, static_cast<size_t>(got));
  }
  return text;
}

int32_t probe(travik_io *, int32_t) { return 10; }

void *open(travik_demuxer *demuxer, int32_t) {
  auto *state = new State();
  state->demuxer = demuxer;
  state->end_result = TRAVIK_DEMUXER_END;
  return state;
}

void close(void *data) { delete static_cast<State *>(data); }

int32_t parseheader(void *data) {
  auto *state = static_cast<State *>(data);
  travik_demuxer *demuxer = state->demuxer;
  std::string text = read_all(demuxer->input);
  size_t at = 0;
  while (at < text.size()) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(at, end - at);
    at = end + 1;
    char word[32] = {0};
    long long a = 0, b = 0, c = 0, d = 0, e = 0;
    int n = std::sscanf(line.c_str(), "%31s %lld %lld %lld %lld %lld", word, &a, &b, &c, &d, &e);
    if (n < 1) continue;
    std::string key = word;
    if (key == "bitrate") demuxer->bitrate = static_cast<int32_t>(a);
    if (key == "preroll") demuxer->preroll = static_cast<int32_t>(a);
    if (key == "fixedpreroll") demuxer->fixed_preroll = static_cast<int32_t>(a);
    if (key == "flags") demuxer->flags = static_cast<uint32_t>(a);
    if (key == "seekable") demuxer->seekable = static_cast<int32_t>(a);
    if (key == "header") state->header_result = static_cast<int32_t>(a);
    if (key == "end") state->end_result = static_cast<int32_t>(a);
    if (key == "hold") state->hold = true;
    if (key == "seekback") state->seek_back = a;
    if (key == "gate") state->gated = true;
    if (key == "audio" || key == "video") {
      travik_stream *stream = &state->streams[state->stream_count++];
      travik_stream_init(stream);
      stream->info.codec = static_cast<int32_t>(a);
      if (key == "audio") {
        stream->info.type = TRAVIK_STREAM_AUDIO;
        stream->info.sample_rate = static_cast<int32_t>(b);
        stream->info.channels = static_cast<int32_t>(c);
        stream->info.bits_per_sample = 16;
        stream->info.bitrate = static_cast<int32_t>(b * c * 16);
        stream->duration = d;
      } else {
        stream->info.type = TRAVIK_STREAM_VIDEO;
        stream->info.width = static_cast<int32_t>(b);
        stream->info.height = static_cast<int32_t>(c);
        stream->info.framerate = static_cast<int32_t>(d);
        stream->info.bitrate = 1234;
        stream->duration = e;
      }
      travik_demuxer_addstream(demuxer, stream);
    }
    if (key == "packet" && state->packet_count < script_demuxer::kMaxPackets) {
      script_demuxer::Packet &p = state->packets[state->packet_count++];
      p.stream = static_cast<int32_t>(a);
      p.pts = b;
      p.size = static_cast<int32_t>(c);
      p.flags = n >= 5 ? static_cast<uint32_t>(d) : 0;
      p.fill = n >= 6 ? static_cast<uint8_t>(e) : 0;
    }
  }
  state->at_gate = state->gated;
  while (state->gated && !state->gate_open) usleep(1000);
  return state->header_result;
}

int32_t parse(void *data, travik_packet **out) {
  auto *state = static_cast<State *>(data);
  int32_t index = state->next;
  if (index >= state->packet_count) return state->hold ? 0 : state->end_result;
  state->next = index + 1;
  const script_demuxer::Packet &p = state->packets[index];
  travik_demuxer_allocator *allocator = state->demuxer->allocator;
  travik_packet *packet = allocator->alloc(allocator->user, p.size);
  packet->stream = p.stream;
  packet->pts = p.pts;
  packet->flags = p.flags;
  packet->extra = index;
  std::memset(packet->data, p.fill, static_cast<size_t>(p.size));
  *out = packet;
  return 0;
}

// Goes to the first packet at or after the position, less the seek-back.
int32_t seek(void *data, int64_t position, int32_t flags) {
  auto *state = static_cast<State *>(data);
  state->seeks++;
  state->last_seek = position;
  state->last_seek_flags = flags;
  int32_t index = 0;
  while (index < state->packet_count && state->packets[index].pts < position - state->seek_back) {
    index++;
  }
  state->next = index;
  return 0;
}

int32_t control(void *data, int32_t command, void *) {
  auto *state = static_cast<State *>(data);
  int32_t slot = state->control_count;
  if (slot < script_demuxer::kMaxControls) {
    state->controls[slot] = command;
    state->control_count = slot + 1;
  }
  return 0;
}

const travik_demuxer_driver drivers[] = {
    {"script test demuxer", "pscript", probe, open, close, parseheader, parse, seek, control},
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
};

}  // namespace

TRAVIK_PLUGIN_EXPORT void travik_demuxer_script(void) {
  travik_plugin_register(TRAVIK_PLUGIN_DEMUXER, TRAVIK_PLUGIN_VERSION,
                         const_cast<travik_demuxer_driver *>(drivers));
}
