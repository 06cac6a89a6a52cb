// The way to a client's private members. An explicit instantiation may name them wherever it stands, and leaves
// functions behind that everybody may call: so the client needs no accessor for the tests alone.

#include "tests/conformance/steps/ClientInside.h"

namespace velto::testing {
namespace {

template <auto Registry, auto Readiness>
struct Inside {
  friend NSMutableDictionary insideRegistry(const VeltoConnection& client) { return (client.*Registry).get(); }
  friend NSCondition insideReadiness(const VeltoConnection& client) { return client.*Readiness; }
};

NSMutableDictionary insideRegistry(const VeltoConnection& client);
NSCondition insideReadiness(const VeltoConnection& client);

template struct Inside<&VeltoConnection::_messageConditions, &VeltoConnection::_connectionCondition>;

}  // namespace

NSMutableDictionary registryOf(const VeltoConnection& client) {
  return insideRegistry(client);
}

NSCondition readinessOf(const VeltoConnection& client) {
  return insideReadiness(client);
}

}  // namespace velto::testing
