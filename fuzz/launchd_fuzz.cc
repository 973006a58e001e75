// What the service manager says of its units: systemctl list-unit-files text rendered in the
// grammar of launchctl print-disabled, that grammar read back, and the command of a unit file.
#include "fuzz/FuzzSupport.h"
#include "launch/ItemsStatusManager.h"
#include "platform/Launchd.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);

  // The grammar as launchctl prints it: whatever the bytes, keys carry no quote or colon.
  for (const auto& [label, disabled] : launch::ItemsStatusManager::parseDisabled(text)) {
    fuzz::require(label.find('"') == std::string::npos && label.find(':') == std::string::npos);
  }

  // Each unit line systemctl could print becomes one line of the grammar, which reads back to
  // the same label and state.
  std::string rendered = platform::launchd::renderDisabled(text);
  auto table = launch::ItemsStatusManager::parseDisabled(rendered);
  std::size_t lines = 0;
  for (char c : rendered) lines += c == '\n' ? 1 : 0;
  fuzz::require(table.size() <= lines);
  for (const auto& [label, disabled] : table) {
    fuzz::require(rendered.find("\t\"" + label + "\" => " + (disabled ? "true" : "false")) !=
                  std::string::npos);
  }

  if (auto command = platform::launchd::unitCommandIn(text)) {
    fuzz::require(!command->empty() && command->find('\n') == std::string::npos);
  }
  return 0;
}
