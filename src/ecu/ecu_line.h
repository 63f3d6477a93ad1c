#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace tokard {

class Ecu;

// What an ECU record needs of the line of clients waiting for its token:
// the lock that all record work takes (a second thread, the lease watch,
// changes records too), and a word after a signal group changed the record.
class EcuLine {
 public:
  virtual ~EcuLine() = default;
  virtual std::mutex& mutex() = 0;
  // Under mutex(): the record's token or flag may have changed outside a
  // request; a freed token goes to the first client in line.
  virtual void changed(Ecu& ecu) = 0;
  // Under mutex(): the clients waiting for the record's token, first first.
  virtual std::vector<std::string> waiters(const Ecu& ecu) const = 0;
};

}  // namespace tokard
