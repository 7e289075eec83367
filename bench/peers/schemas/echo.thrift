namespace cpp bench.thrift

struct Small {
  1: i32 number
  2: string text
  3: binary blob
}

service EchoService {
  Small call(1: Small small)
  binary echo(1: binary bytes)
  void slow(1: i32 microseconds)
  oneway void post(1: Small small)
  i64 posted()
}
