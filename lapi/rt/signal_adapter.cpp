#include "lapi/rt/signal_adapter.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <istream>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "ecu/pb/rt.pb.h"
#include "lapi/com/frame.h"
#include "lapi/logging/logging.h"

namespace ecu::lapi::rt {
namespace {

const logging::LogModulePtr g_log = logging::module("lapi.rt");

using Json = nlohmann::json;

bool is_string_array(const Json& value) {
  return value.is_array() &&
         std::all_of(value.begin(), value.end(), [](const Json& v) { return v.is_string(); });
}

}  // namespace

bool SignalGroup::is_valid() const {
  return std::all_of(m_signals.begin(), m_signals.end(),
                     [](const Signal& s) { return s.status() == 0; });
}

SignalAdapter& SignalAdapter::instance() {
  // Never destroyed: delivery threads may still unpack during static destruction.
  static SignalAdapter* const adapter = [] {
    auto* created = new SignalAdapter;
    created->load(definitions_path());
    return created;
  }();
  return *adapter;
}

std::string SignalAdapter::definitions_path() {
  const char* path = std::getenv(kPathVariable);
  return path != nullptr && *path != '\0' ? path : kDefaultPath;
}

bool SignalAdapter::load(const std::string& path) {
  std::ifstream in(path);
  if (!in) {
    m_groups.clear();
    LAPI_LOG(ERROR, g_log) << "Unable to read signal definitions " << path;
    return false;
  }
  return load(in, path);
}

bool SignalAdapter::load(std::istream& in, const std::string& origin) {
  m_groups.clear();
  const Json doc = Json::parse(in, nullptr, false);

  std::unordered_map<std::string, Definition> groups;
  std::string problem;
  const auto list = doc.is_object() ? doc.find("groups") : doc.end();
  if (doc.is_discarded()) {
    problem = "not JSON";
  } else if (!doc.is_object() || list == doc.end() || !list->is_array()) {
    problem = "no \"groups\" array";
  } else {
    std::size_t position = 0;
    for (const Json& entry : *list) {
      ++position;
      const auto topic = entry.is_object() ? entry.find("topic") : entry.end();
      const auto name = entry.is_object() ? entry.find("name") : entry.end();
      const auto signals = entry.is_object() ? entry.find("signals") : entry.end();
      if (topic == entry.end() || !topic->is_string() ||
          topic->get_ref<const std::string&>().empty() || name == entry.end() ||
          !name->is_string() || signals == entry.end() || !is_string_array(*signals)) {
        // Named by its place in the list: printing the entry back would
        // link JSON's whole writer into the daemon for one error line.
        problem = "group " + std::to_string(position) +
                  " needs a topic, a name and a list of signal names";
        break;
      }
      Definition definition{name->get<std::string>(), signals->get<std::vector<std::string>>()};
      if (!groups.emplace(topic->get<std::string>(), std::move(definition)).second) {
        problem = "topic " + topic->get<std::string>() + " defined twice";
        break;
      }
    }
  }
  if (!problem.empty()) {
    LAPI_LOG(ERROR, g_log) << "Malformed signal definitions " << origin << ": " << problem;
    return false;
  }
  m_groups = std::move(groups);
  LAPI_LOG(INFO, g_log) << "Loaded " << m_groups.size() << " signal groups from " << origin;
  return true;
}

UnpackResult SignalAdapter::unpack(const std::string& topic, const com::Message& message) const {
  UnpackResult result;
  const auto found = m_groups.find(topic);
  if (found == m_groups.end()) {
    LAPI_LOG(DEBUG, g_log) << "No signal group defined for " << topic;
    return result;
  }
  const Definition& definition = found->second;

  const com::FrameView frame = com::read_frame(message.payload);
  pb::RtSignalGroup body;
  if (frame.check != com::FrameCheck::Ok || !body.ParseFromArray(frame.body, frame.body_size)) {
    LAPI_LOG(DEBUG, g_log) << "Undecodable frame on " << topic << ": "
                           << (frame.check == com::FrameCheck::Ok ? "body does not parse"
                                                                  : com::to_string(frame.check));
    return result;
  }
  if (body.name() != definition.name) {
    LAPI_LOG(DEBUG, g_log) << "Group '" << body.name() << "' on " << topic << ", expected '"
                           << definition.name << "'";
    return result;
  }
  if (static_cast<std::size_t>(body.signals_size()) != definition.signals.size()) {
    LAPI_LOG(DEBUG, g_log) << "Group " << definition.name << " on " << topic << " has "
                           << body.signals_size() << " signals, expected "
                           << definition.signals.size();
    return result;
  }

  std::vector<Signal> signals;
  signals.reserve(definition.signals.size());
  for (std::size_t i = 0; i < definition.signals.size(); ++i) {
    const pb::RtSignal& signal = body.signals(static_cast<int>(i));
    if (signal.name() != definition.signals[i]) {
      LAPI_LOG(DEBUG, g_log) << "Signal " << i << " of " << definition.name << " on " << topic
                             << " is '" << signal.name() << "', expected '" << definition.signals[i]
                             << "'";
      return result;
    }
    if (signal.data().size() < kMinDataBytes) {
      LAPI_LOG(DEBUG, g_log) << "Signal " << signal.name() << " of " << definition.name << " on "
                             << topic << " has " << signal.data().size()
                             << " data bytes, expected at least " << kMinDataBytes;
      return result;
    }
    const std::string& bytes = signal.data();
    signals.emplace_back(signal.name(), std::vector<std::uint8_t>(bytes.begin(), bytes.end()),
                         signal.status());
  }
  result.success = true;
  result.group = SignalGroup(body.name(), std::move(signals));
  return result;
}

}  // namespace ecu::lapi::rt
