#include "kernel/sources/load_progress.h"

#include <atomic>

namespace tarv {
namespace {

std::atomic<LoadProgress::Observer*> installed{nullptr};

}  // namespace

void LoadProgress::setObserver(Observer* observer) noexcept { installed.store(observer, std::memory_order_release); }

LoadProgress::Scope::Scope(std::string_view sourceId) noexcept
    : observer_(installed.load(std::memory_order_acquire)), outer_(current_) {
  report_.sourceId = sourceId;
  // Without an observer the scope stays out of the chain, so readers under it
  // see progress as off.
  if (observer_ != nullptr) current_ = this;
}

LoadProgress::Scope::~Scope() {
  if (observer_ == nullptr) return;
  current_ = outer_;
  report_.finished = true;
  observer_->report(report_);
}

void LoadProgress::phase(Phase phase) noexcept {
  Scope* scope = current_;
  if (scope == nullptr) return;
  scope->report_.phase = phase;
  scope->report_.bytesDone = 0;
  scope->report_.bytesTotal = 0;
  // Records carry over into indexing, where they are the catalog's size.
  if (phase != Phase::indexing) scope->report_.records = 0;
  scope->observer_->report(scope->report_);
}

void LoadProgress::advance(std::uint64_t bytesDone, std::uint64_t bytesTotal, std::uint64_t records) noexcept {
  Scope* scope = current_;
  if (scope == nullptr) return;
  scope->report_.bytesDone = bytesDone;
  scope->report_.bytesTotal = bytesTotal;
  scope->report_.records = records;
  scope->observer_->report(scope->report_);
}

}  // namespace tarv
