#pragma once

namespace tarvomeldric {

// A place in the registry of what starts afresh in the child of a fork. The threads that held or
// awaited something in the parent do not exist there, so a lock that one of them held would stay
// held for good.
//
// Requires of the owner: a `renew_after_fork()` that needs no lock, for it runs on the child's only
// thread before anything else does, and that takes no state for whole which another thread may have
// been changing. The membership is the owner's last member: it ends before what it renews.
//
//   class Mutex {
//     void renew_after_fork();
//     const ForkMember member_{*this};
//   };
//
// Guarantees: members are renewed in the order in which they were made, so a record's lock comes
// before the record itself. Any thread may make and end members, a renewal included.
class ForkMember {
 public:
  template <class Owner>
  explicit ForkMember(Owner& owner)
      : ForkMember(&owner, [](void* self) { static_cast<Owner*>(self)->renew_after_fork(); }) {}
  ~ForkMember();
  ForkMember(const ForkMember&) = delete;
  ForkMember& operator=(const ForkMember&) = delete;

 private:
  using Renewal = void (*)(void* owner);
  class Registry;

  ForkMember(void* owner, Renewal renewal);

  void* owner_;
  Renewal renewal_;
  ForkMember* previous_ = nullptr;
  ForkMember* next_ = nullptr;
};

}  // namespace tarvomeldric
