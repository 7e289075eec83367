// refused: mivo: this type cannot travel. Structs need MIVO_FIELDS(Type, field, ...) in their namespace.
#include <mivo/rpc.h>

void Note(mivo::Client& client, const int* number) {
#ifdef MENDED
  client.post("note", *number);
#else
  client.post("note", number);
#endif
}
