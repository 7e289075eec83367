// Whose request the current thread serves.
#ifndef MIVO_TRANSPORT_SERVED_PEER_H_
#define MIVO_TRANSPORT_SERVED_PEER_H_

namespace mivo {

class Connection;

// Stands on the stack around a request: lines that its handler causes count as that peer's.
class ServedPeer {
 public:
  explicit ServedPeer(Connection& peer);
  ~ServedPeer();
  ServedPeer(const ServedPeer&) = delete;
  ServedPeer& operator=(const ServedPeer&) = delete;

  // Whether a line may be printed: always, unless a peer is served that has caused too many in this second. Then the
  // line is counted.
  static bool MayCauseLine();

 private:
  Connection* const outer_;
};

}  // namespace mivo

#endif  // MIVO_TRANSPORT_SERVED_PEER_H_
