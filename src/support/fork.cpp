#include "support/fork.h"

#include <pthread.h>

#include <mutex>

namespace tarvomeldric {

// Its lock is held while the process forks, so that the child finds the list whole.
class ForkMember::Registry {
 public:
  // Never destroyed: members with static storage may end after everything else.
  static Registry& instance() {
    static auto& registry = *new Registry;
    return registry;
  }

  void add(ForkMember& member) {
    const std::lock_guard lock(mutex_);
    member.previous_ = last_;
    (last_ ? last_->next_ : first_) = &member;
    last_ = &member;
  }
  void remove(ForkMember& member) {
    const std::lock_guard lock(mutex_);
    (member.previous_ ? member.previous_->next_ : first_) = member.next_;
    (member.next_ ? member.next_->previous_ : last_) = member.previous_;
  }

 private:
  Registry() {
    pthread_atfork([] { instance().mutex_.lock(); }, [] { instance().mutex_.unlock(); },
                   [] { instance().renew_all(); });
  }

  // A renewal may make members, which come last, and end others.
  void renew_all() {
    mutex_.unlock();
    for (ForkMember* member = first_; member; member = member->next_) {
      member->renewal_(member->owner_);
    }
  }

  std::mutex mutex_;
  ForkMember* first_ = nullptr;
  ForkMember* last_ = nullptr;
};

ForkMember::ForkMember(void* owner, Renewal renewal) : owner_(owner), renewal_(renewal) {
  Registry::instance().add(*this);
}

ForkMember::~ForkMember() { Registry::instance().remove(*this); }

}  // namespace tarvomeldric
