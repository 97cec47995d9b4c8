#include "results/interimresults.h"

namespace patchmgmt {

InterimResults InterimResults::instance_;

void InterimResults::Update(const std::string& patchId, InterimResult result) {
  auto record = std::make_shared<const InterimResult>(std::move(result));
  std::lock_guard<std::mutex> lock(mutex_);
  results_[patchId] = std::move(record);
}

InterimResultMap InterimResults::Snapshot() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return results_;
}

void InterimResults::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  results_.clear();
}

}  // namespace patchmgmt
