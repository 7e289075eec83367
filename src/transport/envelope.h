// What a message is: read from its payload without building values, and written.
#ifndef MIVO_TRANSPORT_ENVELOPE_H_
#define MIVO_TRANSPORT_ENVELOPE_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

class MIVOParams;

namespace mivo {

// The envelope of one payload; the views point into it. The peer writes what it likes: a value of another type than
// agreed counts as absent. Of a payload that does not decode, what stands before the fault counts.
struct Envelope {
  bool well_formed = false;
  std::optional<std::string_view> name;
  std::optional<int> thread_id;
  std::optional<std::string_view> sem_id;
  std::optional<std::string_view> data;
};

Envelope ReadEnvelope(std::string_view payload);

// The same envelope over a copy of its payload.
Envelope MoveEnvelope(const Envelope& envelope, std::string_view from, std::string_view to);

// A request's payload. `params` may be null: then no arguments travel. `token` 0: nobody waits for the reply.
// One that no frame can hold ends the program.
std::string EncodeRequest(std::string_view name, int key, const MIVOParams* params, std::uintptr_t token);

// What a server answers, at once, to a request that names kCloseServerMethod. It closes nothing, and names no waiter.
std::string CloseAnswer(int key);

// Completes a reply that a server's handler has filled: name, then key and token if the request had them.
void AppendServerReplyTail(std::string& reply, const Envelope& request);

// Completes a reply that a client's handler has filled: key (0 if the request had none), token if it had one, then
// name. The two sides differ, and peers may rely on either.
void AppendClientReplyTail(std::string& reply, const Envelope& request);

}  // namespace mivo

#endif  // MIVO_TRANSPORT_ENVELOPE_H_
