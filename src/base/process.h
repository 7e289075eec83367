// Which process this is.
#ifndef MIVO_BASE_PROCESS_H_
#define MIVO_BASE_PROCESS_H_

namespace mivo {

// How many forks lie between the process that loaded the library and this one. Costs no system call. Any thread.
unsigned int ForkGeneration();

// Remembers the process it was made in. A child of fork has copies of its parent's objects, but none of the threads
// that make them work, and their locks as they happened to be.
class ProcessMark {
 public:
  bool IsThisProcess() const { return ForkGeneration() == generation_; }

 private:
  const unsigned int generation_ = ForkGeneration();
};

}  // namespace mivo

#endif  // MIVO_BASE_PROCESS_H_
