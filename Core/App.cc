#include "Core/App.h"

namespace Core {

AppFile::Kind AppFile::kindFromText(std::string_view text) {
  if (text == "log") return Log{};
  if (text == "cache") return Cache{};
  if (text == "container") return Container{};
  if (text == "support") return Support{};
  if (text == "preference") return Preference{};
  if (text == "cookie") return Cookie{};
  return Other{std::string(text)};
}

std::string AppFile::textOfKind(const Kind& kind) {
  struct Visitor {
    std::string operator()(const Other& o) const { return o.text; }
    std::string operator()(const Log&) const { return "log"; }
    std::string operator()(const Cache&) const { return "cache"; }
    std::string operator()(const Container&) const { return "container"; }
    std::string operator()(const Support&) const { return "support"; }
    std::string operator()(const Preference&) const { return "preference"; }
    std::string operator()(const Cookie&) const { return "cookie"; }
  };
  return std::visit(Visitor{}, kind);
}

}  // namespace Core
