#include "statistics/data_manager.h"

namespace kestrova {

DataManager::DataManager(API api) : api_(std::move(api)) {
  // Files kept by a failed upload, a lost token or a restart get their next try now.
  api_.uploadPending();
}

}  // namespace kestrova
