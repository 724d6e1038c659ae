// Counting gates that bound intake work: validations of links (public and authenticated apart,
// so that a flood of public links can't starve the file-manager actions) and open handoff
// connections.
//
//   std::optional<IntakeWorkCapacityLease> lease = gate.tryAcquire();
//   if (!lease) { ... refuse ... }
//   ... work; the place is given back when the lease is released or destroyed ...
//
// Thread-safe; each gate and each lease has its own lock, held only for a counter.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>

namespace tessarin::engine {

class IntakeWorkCapacityGate;

// One place in a gate, given back at most once: by release() or by the destructor. Movable.
class IntakeWorkCapacityLease {
public:
    IntakeWorkCapacityLease(IntakeWorkCapacityLease&& other) noexcept;
    IntakeWorkCapacityLease& operator=(IntakeWorkCapacityLease&& other) noexcept;
    IntakeWorkCapacityLease(const IntakeWorkCapacityLease&) = delete;
    IntakeWorkCapacityLease& operator=(const IntakeWorkCapacityLease&) = delete;
    ~IntakeWorkCapacityLease();

    void release();
    [[nodiscard]] bool isReleased() const;

private:
    friend class IntakeWorkCapacityGate;
    explicit IntakeWorkCapacityLease(std::shared_ptr<IntakeWorkCapacityGate> gate);

    std::shared_ptr<IntakeWorkCapacityGate> gate_;
    mutable std::unique_ptr<std::mutex> mutex_;
    bool isReleased_ = false;  // guarded by *mutex_
};

class IntakeWorkCapacityGate : public std::enable_shared_from_this<IntakeWorkCapacityGate> {
public:
    // `limit` is at least 1 (a smaller one is taken as 1).
    [[nodiscard]] static std::shared_ptr<IntakeWorkCapacityGate> make(std::size_t limit);

    // A place, or nothing when `limit` are taken.
    [[nodiscard]] std::optional<IntakeWorkCapacityLease> tryAcquire();
    [[nodiscard]] std::size_t active() const;
    [[nodiscard]] std::size_t limit() const { return limit_; }

private:
    friend class IntakeWorkCapacityLease;
    explicit IntakeWorkCapacityGate(std::size_t limit) : limit_(limit) {}
    void giveBack();

    const std::size_t limit_;
    mutable std::mutex mutex_;
    std::size_t active_ = 0;  // guarded by mutex_
};

// The two validation gates of the process, 4 places each.
class IntakeValidationAdmissionController {
public:
    static constexpr std::size_t kLimit = 4;

    [[nodiscard]] static IntakeValidationAdmissionController& process();
    IntakeValidationAdmissionController();

    const std::shared_ptr<IntakeWorkCapacityGate> publicURLGate;
    const std::shared_ptr<IntakeWorkCapacityGate> authenticatedHandoffGate;
};

}  // namespace tessarin::engine
