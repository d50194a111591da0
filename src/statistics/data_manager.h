// The statistics manager. So far it owns the start-up upload sweep: constructing it retries
// every upload file left on disk. Immutable after construction; any thread.
#pragma once

#include "api/api.h"

namespace kestrova {

class DataManager {
 public:
  explicit DataManager(API api);

  const API& api() const { return api_; }

 private:
  const API api_;
};

}  // namespace kestrova
