#include "ops/PrometheusText.h"

namespace Ops {

void PrometheusText::family(std::string const& name, char const* type, std::string const& help) {
  os_ << "# HELP " << name << " ";
  for (char c : help) os_ << (c == '\n' ? "\\n" : c == '\\' ? "\\\\" : std::string(1, c));
  os_ << "\n# TYPE " << name << " " << type << "\n";
}

std::string PrometheusText::label(std::string const& name, std::string const& value) {
  std::string v;
  for (char c : value) {
    if (c == '\n') {
      v += "\\n";
      continue;
    }
    if (c == '\\' || c == '"') v += '\\';
    v += c;
  }
  return name + "=\"" + v + "\"";
}

}  // namespace Ops
