// Writes the seed corpus of every fuzz target into DIR/<target>/: valid
// inputs, framed by the same adapter the daemon uses, so the seeds follow
// any change of the frame format.
// Usage: tokard_fuzz_seeds DIR
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "ecu/pb/header.pb.h"
#include "fuzz_support.h"

namespace {

using ecu::lapi::pb::PgnRequestTokenRequest;
using tokard::fuzz::defined_groups;
using tokard::fuzz::frame;
using tokard::fuzz::group;
using tokard::fuzz::request;
using Bytes = std::vector<std::uint8_t>;

std::string g_dir;
bool g_failed = false;

void write(const std::string& target, const std::string& name, const std::string& bytes) {
  ::mkdir((g_dir + "/" + target).c_str(), 0755);
  const std::string path = g_dir + "/" + target + "/" + name;
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out) {
    std::fprintf(stderr, "cannot write %s\n", path.c_str());
    g_failed = true;
  }
}

std::string text(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

// A frame with a header of the caller's choosing (other protocol types,
// a wrong header length) around a serialized body.
std::string raw_frame(std::uint64_t protocol, std::uint64_t header_length,
                      const std::string& body) {
  ecu::lapi::pb::SREHeader header;
  header.set_length_word(protocol | (header_length << 16) |
                         (static_cast<std::uint64_t>(body.size()) << 32));
  header.set_timestamp_ns(123456789);
  return header.SerializeAsString() + body;
}

std::string acquire(const std::string& topic, const std::string& client) {
  return text(frame(request(PgnRequestTokenRequest::ACQUIRE, topic, client)));
}

std::string release(const std::string& topic, const std::string& client) {
  return text(frame(request(PgnRequestTokenRequest::RELEASE, topic, client)));
}

std::string rt(std::size_t index, const std::vector<std::uint32_t>& statuses) {
  return text(frame(group(defined_groups()[index], statuses)));
}

// One record of the request-handler target: op, little-endian length, bytes.
std::string record(std::uint8_t op, const std::string& bytes) {
  std::string out;
  out += static_cast<char>(op);
  out += static_cast<char>(bytes.size() & 0xff);
  out += static_cast<char>((bytes.size() >> 8) & 0xff);
  return out + bytes;
}

void frame_seeds() {
  write("fuzz_frame_request", "acquire", acquire("rt/ECU1", "app1"));
  write("fuzz_frame_request", "release", release("rttx/bus0/ECU2", "app2"));
  write("fuzz_frame_request", "no_client",
        text(frame(request(PgnRequestTokenRequest::ACQUIRE, "rt/ECU1", ""))));
  write(
      "fuzz_frame_request", "protocol_7",
      raw_frame(7, 18, request(PgnRequestTokenRequest::ACQUIRE, "rt/E", "c").SerializeAsString()));
  write("fuzz_frame_request", "header_only", raw_frame(1, 18, ""));
  write("fuzz_frame_rt", "engine_valid", rt(0, {0, 0}));
  write("fuzz_frame_rt", "brake_invalid", rt(1, {0, 3, 0}));
  write("fuzz_frame_rt", "heartbeat", rt(2, {}));
  write("fuzz_frame_rt", "header_length_20",
        raw_frame(1, 20, group(defined_groups()[0], {}).SerializeAsString()));
}

void unpack_seeds() {
  for (std::size_t i = 0; i < defined_groups().size(); ++i) {
    const std::string choice(1, static_cast<char>(i));
    write("fuzz_signal_unpack", "valid_" + std::to_string(i), choice + rt(i, {}));
    write("fuzz_signal_unpack", "invalid_" + std::to_string(i), choice + rt(i, {1, 2, 3}));
  }
}

void handler_seeds() {
  const std::string request_topic = "system/tokard/request";
  write("fuzz_request_handler", "acquire_busy_release",
        record(0, acquire("rt/ECU1", "app1")) + record(0, acquire("rttx/ECU1", "app2")) +
            record(0, release("rt/ECU1", "app1")) + record(0, acquire("rt/bus0/ECU1", "app2")));
  write("fuzz_request_handler", "blocked_then_freed",
        record(0, acquire("rt/ECU2", "app1")) + record(3, std::string(1, '\0') + rt(1, {0, 0, 0})) +
            record(0, acquire("rt/ECU2", "app2")) + record(4, std::string("\x01\x01\x00\x05", 4)) +
            record(0, acquire("rt/ECU2", "app2")));
  write("fuzz_request_handler", "transmit_side",
        record(0, acquire("rt/bus0/ECU3", "app3")) + record(4, std::string("\x00\x02", 2)) +
            record(4, std::string("\x01\x02", 2)) + record(0, acquire("rt/bus0/ECU3", "app1")));
  write("fuzz_request_handler", "other_topics",
        record(1, "rt/ECU1" + std::string(1, '\0') + acquire("rt/ECU1", "app1")) +
            record(1, request_topic + std::string(1, '\0') + acquire("rt/ECU1", "app1")) +
            record(0, acquire("not/rt", "app1")) + record(0, acquire("rt/", "app1")));
  write(
      "fuzz_request_handler", "well_formed",
      record(2, std::string("\x00\x00\x00", 3)) + record(2, std::string("\x00\x01\x00", 3)) +
          record(2, std::string("\x01\x00\x00", 3)) + record(2, std::string("\x00\x01\x00", 3)) +
          record(2, std::string("\x00\x03\x0b", 3) + "me" + std::string(1, '\0') + "rt/a/ ECU 9 "));
}

void text_seeds() {
  const char* topics[] = {"rt/ECU1", "rttx/ECU1", "rt/bus0/ECU1", "rt/  ECU1 \t", "rt/E1 X",
                          "rt/   ",  "rt/ECU1/",  "rttxECU1",     "RT/ECU1"};
  for (std::size_t i = 0; i < sizeof topics / sizeof topics[0]; ++i) {
    write("fuzz_topic", "topic_" + std::to_string(i), topics[i]);
  }
  write("fuzz_config", "full",
        "# tokard\nhost = 127.0.0.1\nport = 1883\nclient_name = tokard\n"
        "logmode = stderr\nloglevel = INFO\n");
  write("fuzz_config", "odd", "  port=65535  \n\n#x\nno equals here\nhost =\nport = 0\n=\r\n");
  write("fuzz_signal_definitions", "fixed", tokard::fuzz::kSignalDefinitions);
  write("fuzz_signal_definitions", "empty", R"({"groups": []})");
  write("fuzz_signal_definitions", "twice",
        R"({"groups": [{"topic": "rt/A", "name": "G", "signals": ["s"]},)"
        R"( {"topic": "rt/A", "name": "H", "signals": []}]})");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
    return 2;
  }
  tokard::fuzz::quiet_logging();
  g_dir = argv[1];
  ::mkdir(g_dir.c_str(), 0755);
  frame_seeds();
  unpack_seeds();
  handler_seeds();
  text_seeds();
  return g_failed ? 1 : 0;
}
