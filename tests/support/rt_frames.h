#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "com/message_adapter.h"
#include "ecu/pb/rt.pb.h"
#include "lapi/com/message.h"

namespace tokard::test {

struct RtSignalSpec {
  std::string name;
  std::string data;  // raw bytes
  std::uint32_t status = 0;
};

// A framed real-time message carrying one signal group.
inline ecu::lapi::com::Message rt_frame(const std::string& group,
                                        const std::vector<RtSignalSpec>& signals) {
  ecu::lapi::pb::RtSignalGroup body;
  body.set_name(group);
  for (const auto& sig : signals) {
    auto* signal = body.add_signals();
    signal->set_name(sig.name);
    signal->set_data(sig.data);
    signal->set_status(sig.status);
  }
  return ecu::lapi::com::PbInternalMessageAdapter<ecu::lapi::pb::RtSignalGroup>()
      .serialize(body)
      .second;
}

// Writes `text` to a file in the temporary directory, named per process so
// that tests running in parallel do not share it; returns its path.
inline std::string write_temp_file(const std::string& name, const std::string& text) {
  const std::string path = testing::TempDir() + std::to_string(::getpid()) + "_" + name;
  std::ofstream(path) << text;
  return path;
}

}  // namespace tokard::test
