#include "status_view.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>

#include "com/protocol.h"
#include "tokard/pb/status.pb.h"

namespace tokctl {
namespace {

std::string held_for(const EcuStatus& status, std::uint64_t now_unix_ms) {
  if (status.holder.empty()) {
    return "-";
  }
  const std::uint64_t ms =
      now_unix_ms > status.granted_unix_ms ? now_unix_ms - status.granted_unix_ms : 0;
  return std::to_string(ms / 1000) + " s";
}

std::string joined(const std::vector<std::string>& words) {
  std::string out;
  for (const auto& word : words) {
    out += (out.empty() ? "" : " ") + word;
  }
  return out;
}

}  // namespace

std::optional<EcuStatus> read_status(const ecu::lapi::com::Message& msg) {
  const auto decoded = tokard::protocol::read<tokard::pb::TokenStatus>(msg);
  if (!decoded.ok) {
    return std::nullopt;
  }
  const auto& body = decoded.value;
  EcuStatus status;
  status.ecu = body.ecu();
  status.holder = body.holder();
  status.generation = body.generation();
  status.granted_unix_ms = body.granted_unix_ms();
  status.blocked = body.blocked();
  status.topics.assign(body.topics().begin(), body.topics().end());
  status.boot_id = body.boot_id();
  status.waiters.assign(body.waiters().begin(), body.waiters().end());
  return status;
}

std::string status_line(const EcuStatus& status, std::uint64_t now_unix_ms) {
  std::string line = status.ecu;
  line += status.holder.empty()
              ? " free"
              : " held by " + status.holder + " for " + held_for(status, now_unix_ms);
  line += ", generation " + std::to_string(status.generation);
  line += status.blocked ? ", blocked" : "";
  line += status.waiters.empty() ? "" : ", waiting " + joined(status.waiters);
  return line + ", topics " + joined(status.topics);
}

std::string status_table(const std::string& availability, const std::vector<EcuStatus>& ecus,
                         std::uint64_t now_unix_ms) {
  const bool lines = std::any_of(ecus.begin(), ecus.end(),
                                 [](const EcuStatus& status) { return !status.waiters.empty(); });
  std::vector<std::vector<std::string>> rows{
      {"ECU", "HOLDER", "HELD", "GENERATION", "BLOCKED", "TOPICS"}};
  for (const auto& status : ecus) {
    rows.push_back({status.ecu, status.holder.empty() ? "-" : status.holder,
                    held_for(status, now_unix_ms), std::to_string(status.generation),
                    status.blocked ? "yes" : "no", joined(status.topics)});
  }
  for (std::size_t i = 0; lines && i < rows.size(); ++i) {
    const auto& waiters = i == 0 ? std::vector<std::string>{"WAITING"} : ecus[i - 1].waiters;
    rows[i].insert(rows[i].end() - 1, waiters.empty() ? "-" : joined(waiters));
  }
  std::vector<std::size_t> widths(rows.front().size(), 0);
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], row[i].size());
    }
  }
  std::ostringstream out;
  out << "tokard: " << availability << "\n";
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i] + (i + 1 < row.size() ? std::string(widths[i] - row[i].size() + 2, ' ') : "");
    }
    out << line << "\n";
  }
  return out.str();
}

std::string status_json(const std::string& availability, const std::vector<EcuStatus>& ecus,
                        std::uint64_t now_unix_ms) {
  nlohmann::json doc{{"tokard", availability}, {"ecus", nlohmann::json::array()}};
  for (const auto& status : ecus) {
    nlohmann::json ecu{
        {"ecu", status.ecu},
        {"holder", status.holder.empty() ? nlohmann::json() : nlohmann::json(status.holder)},
        {"generation", status.generation},
        {"blocked", status.blocked},
        {"topics", status.topics},
        {"boot_id", status.boot_id}};
    if (!status.waiters.empty()) {
      ecu["waiters"] = status.waiters;
    }
    if (!status.holder.empty()) {
      ecu["granted_unix_ms"] = status.granted_unix_ms;
      ecu["held_ms"] =
          now_unix_ms > status.granted_unix_ms ? now_unix_ms - status.granted_unix_ms : 0;
    }
    doc["ecus"].push_back(std::move(ecu));
  }
  return doc.dump(2) + "\n";
}

std::vector<std::string> status_topics(const std::vector<std::string>& ecus) {
  namespace protocol = tokard::protocol;
  std::vector<std::string> topics{protocol::kStateTopic};
  if (ecus.empty()) {
    topics.emplace_back(protocol::kStatusFilter);
  }
  for (const auto& ecu : ecus) {
    topics.push_back(protocol::status_topic(ecu));
  }
  return topics;
}

void StatusCollector::message(const std::string& topic, const ecu::lapi::com::Message& msg) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_last = Clock::now();
  if (topic == tokard::protocol::kStateTopic) {
    m_state.assign(msg.payload.begin(), msg.payload.end());
  } else if (auto status = read_status(msg)) {
    m_ecus[status->ecu] = std::move(*status);
  }
}

StatusCollector::Clock::time_point StatusCollector::last() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_last;
}

bool StatusCollector::online() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_state == tokard::protocol::kOnline;
}

std::string StatusCollector::report(bool json, std::uint64_t now_unix_ms) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  const std::string state = m_state.empty() ? "never seen" : m_state;
  std::vector<EcuStatus> ecus;
  for (const auto& entry : m_ecus) {
    ecus.push_back(entry.second);
  }
  return json ? status_json(state, ecus, now_unix_ms) : status_table(state, ecus, now_unix_ms);
}

}  // namespace tokctl
