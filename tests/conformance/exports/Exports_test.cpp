// What the shared library lets others see: the library is loaded as a program would load it, and its symbols listed.
// This program holds nothing of the library itself.

#include <array>
#include <cstdio>
#include <set>
#include <sstream>
#include <string>
#include <string_view>

#include <dlfcn.h>
#include <gtest/gtest.h>

#include "tests/conformance/Statements.h"

namespace velto::testing {
namespace {

class Exports : public ::testing::Test {
 protected:
  Exports() { listSymbols(); }

  template <class T>
  T* find(const char* name) const {
    return library_ != nullptr ? static_cast<T*>(dlsym(library_, name)) : nullptr;
  }
  // Whether a symbol begins like this; functions are listed with their parameters.
  bool has(std::string_view beginning) const {
    for (const std::string& symbol : symbols_) {
      if (symbol.starts_with(beginning)) return true;
    }
    return false;
  }

  // All that are defined and dynamic, in the language's spelling; of these, the ones that are no template's or inline
  // function's.
  std::set<std::string> symbols_;
  std::set<std::string> strong_;

 private:
  void listSymbols() {
    FILE* output = popen(VELTO_NM " -D -C --defined-only " VELTO_LIBRARY, "r");
    if (output == nullptr) return;
    std::string text;
    std::array<char, 4096> block{};
    for (std::size_t count = 0; (count = fread(block.data(), 1, block.size(), output)) > 0;) {
      text.append(block.data(), count);
    }
    EXPECT_EQ(pclose(output), 0);
    std::istringstream lines(text);
    std::string address;
    std::string kind;
    for (std::string name; lines >> address >> kind && std::getline(lines >> std::ws, name);) {
      symbols_.insert(name);
      if (std::string_view("TDRB").find(kind) != std::string_view::npos) strong_.insert(name);
    }
  }

  void* const library_ = dlopen(VELTO_LIBRARY, RTLD_NOW | RTLD_LOCAL);
};

TEST_F(Exports, TheConstantsHaveTheirValues) {
  PROVES("types.constants.5",
         "the shared library exports VKT_IPC_TIME_FOREVER, which is -1 and can be written, VeltoIPCVersionNumber and "
         "VeltoIPCVersionString");
  auto* const forever = find<double>("VKT_IPC_TIME_FOREVER");
  ASSERT_NE(forever, nullptr) << dlerror();
  EXPECT_EQ(*forever, -1.0);
  *forever = -2.0;
  EXPECT_EQ(*forever, -2.0);
  const auto* const number = find<const double>("VeltoIPCVersionNumber");
  ASSERT_NE(number, nullptr);
  EXPECT_EQ(*number, 0.0);
  const auto* const text = find<const char>("VeltoIPCVersionString");
  ASSERT_NE(text, nullptr);
  EXPECT_STREQ(text, "@(#)PROGRAM:VeltoIPC  PROJECT:VeltoIPC-\n");
}

TEST_F(Exports, TheClassesHaveTheirFunctions) {
  PROVES("types.exports.1", "the shared library exports every public function of the two classes");
  for (const char* function : {"VeltoConnection::init()",
                               "VeltoConnection::initWithServiceName(",
                               "VeltoConnection::waitUntilReady(double",
                               "VeltoConnection::getID() const",
                               "VeltoConnection::close()",
                               "VeltoConnection::sendMessage(",
                               "VeltoConnection::sendMessageSync(",
                               "VeltoConnection::delegate() const",
                               "VeltoConnection::setDelegate(",
                               "VeltoConnection::classObject()",
                               "VeltoListener::init()",
                               "VeltoListener::initWithServiceName(",
                               "VeltoListener::sendMessage(",
                               "VeltoListener::sendMessageSync(",
                               "VeltoListener::setStrictMessageTypes(bool)",
                               "VeltoListener::close()",
                               "VeltoListener::close(NSString const&)",
                               "VeltoListener::delegate() const",
                               "VeltoListener::setDelegate(",
                               "VeltoListener::classObject()"}) {
    EXPECT_TRUE(has(function)) << function;
  }
}

TEST_F(Exports, TheInsideStaysInside) {
  PROVES("types.exports.2",
         "checkDictionary, checkArray and setupDaemonConnection are not exported, nor anything else than the two "
         "classes, the peer protocol and the constants");
  ASSERT_FALSE(strong_.empty());
  for (const char* function : {"checkDictionary", "checkArray", "setupDaemonConnection"}) {
    EXPECT_FALSE(has(function)) << function;
  }
  constexpr std::string_view kExported[] = {"VeltoConnection::",
                                            "VeltoListener::",
                                            "VeltoCommunicationMessageProtocol::",
                                            "velto::xpc::Protocol const& "
                                            "velto::xpc::protocolOf<VeltoCommunicationMessageProtocol>()",
                                            "velto::Call::",
                                            "velto::CallError",
                                            "velto::Client::",
                                            "velto::Failure",
                                            "velto::InProcess::",
                                            "velto::Request::",
                                            "velto::Service::",
                                            "velto::Stream",
                                            "velto::detail::",
                                            "velto::nameOf(",
                                            "velto::operator<<(std::ostream&, velto::CallError",
                                            "VKT_IPC_TIME_FOREVER",
                                            "VeltoIPCVersionNumber",
                                            "VeltoIPCVersionString"};
  // What belongs to a class without being written in it.
  constexpr std::string_view kPrefixes[] = {"vtable for ", "typeinfo for ", "typeinfo name for ",
                                            "non-virtual thunk to "};
  for (const std::string& symbol : strong_) {
    std::string_view rest = symbol;
    if (rest.starts_with("_")) continue;  // the linker's and the compiler's own
    bool belongsToClass = false;
    for (const std::string_view prefix : kPrefixes) {
      if (!rest.starts_with(prefix)) continue;
      rest.remove_prefix(prefix.size());
      belongsToClass = true;
    }
    bool isExported = false;
    for (const std::string_view each : kExported) {
      const std::string_view beginning = belongsToClass ? each.substr(0, each.find("::")) : each;
      isExported = isExported || rest.starts_with(beginning);
    }
    EXPECT_TRUE(isExported) << symbol;
  }
}

}  // namespace
}  // namespace velto::testing
