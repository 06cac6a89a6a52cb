@0xd1c6b0a3f2e45977;
# Messages whose keys and values are known when they come, not before.

struct Value {
  union {
    text @0 :Text;
    integer @1 :Int64;
    number @2 :Float64;
    flag @3 :Bool;
    list @4 :List(Value);
    data @5 :Data;
  }
}

struct Entry {
  key @0 :Text;
  value @1 :Value;
}

struct Message {
  entries @0 :List(Entry);
}

interface Exchange {
  call @0 (message :Message) -> (message :Message);
  tell @1 (message :Message) -> stream;
}
