// Those around a reading role, who write down what they are told.
#ifndef MIVO_TESTS_UNIT_READING_ROLE_FAKES_H_
#define MIVO_TESTS_UNIT_READING_ROLE_FAKES_H_

#include "transport/reading_role.h"

namespace mivo {

class ListeningPool : public ReadingRole::Listening {
 public:
  void SetListening(bool on) override {
    listens = on;
    is_muted = is_muted && !on;
    if (on) ++times_on;
  }
  void Mute() override {
    is_muted = true;
    ++mutes;
  }

  bool listens = false;
  bool is_muted = false;
  int times_on = 0;
  int mutes = 0;
};

class CountingCaller : public ReadingRole::Caller {
 public:
  void BecomeReader() override { ++times_given; }
  int times_given = 0;
};

}  // namespace mivo

#endif  // MIVO_TESTS_UNIT_READING_ROLE_FAKES_H_
