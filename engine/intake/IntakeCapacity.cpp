#include "engine/intake/IntakeCapacity.hpp"

#include <algorithm>
#include <utility>

namespace tessarin::engine {

IntakeWorkCapacityLease::IntakeWorkCapacityLease(std::shared_ptr<IntakeWorkCapacityGate> gate)
    : gate_(std::move(gate)), mutex_(std::make_unique<std::mutex>()) {}

IntakeWorkCapacityLease::IntakeWorkCapacityLease(IntakeWorkCapacityLease&& other) noexcept
    : gate_(std::move(other.gate_)), mutex_(std::move(other.mutex_)) {
    isReleased_ = other.isReleased_;
    other.isReleased_ = true;
}

IntakeWorkCapacityLease& IntakeWorkCapacityLease::operator=(
    IntakeWorkCapacityLease&& other) noexcept {
    if (this != &other) {
        release();
        gate_ = std::move(other.gate_);
        mutex_ = std::move(other.mutex_);
        isReleased_ = other.isReleased_;
        other.isReleased_ = true;
    }
    return *this;
}

IntakeWorkCapacityLease::~IntakeWorkCapacityLease() {
    release();
}

void IntakeWorkCapacityLease::release() {
    if (!mutex_) {
        return;  // moved from
    }
    {
        std::lock_guard lock(*mutex_);
        if (isReleased_) {
            return;
        }
        isReleased_ = true;
    }
    gate_->giveBack();
}

bool IntakeWorkCapacityLease::isReleased() const {
    if (!mutex_) {
        return true;
    }
    std::lock_guard lock(*mutex_);
    return isReleased_;
}

std::shared_ptr<IntakeWorkCapacityGate> IntakeWorkCapacityGate::make(std::size_t limit) {
    return std::shared_ptr<IntakeWorkCapacityGate>(
        new IntakeWorkCapacityGate(std::max<std::size_t>(limit, 1)));
}

std::optional<IntakeWorkCapacityLease> IntakeWorkCapacityGate::tryAcquire() {
    {
        std::lock_guard lock(mutex_);
        if (active_ >= limit_) {
            return std::nullopt;
        }
        ++active_;
    }
    return IntakeWorkCapacityLease(shared_from_this());
}

std::size_t IntakeWorkCapacityGate::active() const {
    std::lock_guard lock(mutex_);
    return active_;
}

void IntakeWorkCapacityGate::giveBack() {
    std::lock_guard lock(mutex_);
    if (active_ > 0) {
        --active_;
    }
}

IntakeValidationAdmissionController& IntakeValidationAdmissionController::process() {
    static IntakeValidationAdmissionController controller;
    return controller;
}

IntakeValidationAdmissionController::IntakeValidationAdmissionController()
    : publicURLGate(IntakeWorkCapacityGate::make(kLimit)),
      authenticatedHandoffGate(IntakeWorkCapacityGate::make(kLimit)) {}

}  // namespace tessarin::engine
