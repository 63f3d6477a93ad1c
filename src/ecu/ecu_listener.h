#pragma once

#include <mutex>
#include <string>

namespace tokard {

class Ecu;

// Told about every change of an ECU record that others may want to see.
// Called on the thread that changed the record.
class EcuListener {
 public:
  virtual ~EcuListener() = default;
  // `topic` was added to the record (the first time also creates it); the
  // record now follows it and its transmit counterpart.
  virtual void topic_added(const Ecu& ecu, const std::string& topic) = 0;
  // The holder changed (grant to a new holder, take-over, release, freed by
  // a signal group that is not valid), the request-active flag changed or
  // the line of waiting clients changed.
  // A renewal by the holder changes none of them.
  virtual void token_changed(const Ecu& ecu) = 0;
  // The change that caused the calls above is complete (a request decided,
  // a signal group handled): a listener that waits for that may act now.
  virtual void settle() = 0;
  // The lock under which records change. The calls above come with it
  // held; a listener that reads records at other times takes it itself.
  virtual void set_records_lock(std::mutex& lock) { (void)lock; }
};

}  // namespace tokard
