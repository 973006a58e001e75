// Messages on the privileged helper's socket, in both directions: whatever is accepted is a call
// of the protocol with arguments of the declared types.
#include "fuzz/FuzzSupport.h"
#include "helper/Protocols.h"
#include "platform/Xpc.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view line(reinterpret_cast<const char*>(data), size);
  for (const auto* interface :
       {&helper::helperProtocolInterface(), &helper::helperDelegateInterface()}) {
    auto message = platform::xpc::decodeMessage(line, *interface);
    if (!message || message->isAnswer) continue;
    const auto* method = interface->find(message->selector);
    fuzz::require(method != nullptr);
    fuzz::require(message->arguments.is_array());
    // No accepted text holds a NUL: the system would read a path only up to it.
    for (const auto& argument : message->arguments) {
      if (argument.is_string()) {
        fuzz::require(argument.get_ref<const std::string&>().find('\0') == std::string::npos);
      }
      if (argument.is_array()) {
        for (const auto& item : argument) {
          fuzz::require(item.get_ref<const std::string&>().find('\0') == std::string::npos);
        }
      }
    }
  }
  return 0;
}
