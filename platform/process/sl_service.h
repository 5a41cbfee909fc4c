// The base class of every service that a daemon's main() starts and deletes.
#pragma once

#include <cstdint>

/// A service is made, started and stopped. Deleting it stops it.
///
/// The order of the virtual functions (the two of the destructor, stop, start) is part of the
/// contract, because services and the programs that start them are built separately.
class SlService {
 public:
  SlService() = default;
  SlService(const SlService&) = delete;
  SlService& operator=(const SlService&) = delete;
  virtual ~SlService() = default;

  /// Ends the work that start() has begun, and waits for its end. May be called even if nothing
  /// runs.
  virtual void stop() = 0;

  /// Begins the service's work and returns at once.
  /// @return 0 when it runs
  virtual std::int32_t start() = 0;
};
