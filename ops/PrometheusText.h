#pragma once
// PrometheusText: writes the Prometheus text exposition format, version 0.0.4: each metric family as
// "# HELP", "# TYPE" and its samples, one per line, label values escaped (backslash, double quote, line feed)
// as the format wants. It checks nothing: the caller names families and labels once each, in order.
//
//   PrometheusText w;
//   w.family("mod_flows", "gauge", "Flows being reported.");
//   w.sample("mod_flows", 7);
//   w.sample("mod_interface_flows", 3, PrometheusText::label("interface", "eth1"));

#include <sstream>
#include <string>

namespace Ops {

class PrometheusText {
 public:
  // The content type a scrape is answered with.
  static constexpr char const* kContentType = "text/plain; version=0.0.4; charset=utf-8";

  void family(std::string const& name, char const* type, std::string const& help);
  template <class V>
  void sample(std::string const& name, V value, std::string const& labels = {}) {
    os_ << name << (labels.empty() ? "" : "{" + labels + "}") << " " << value << "\n";
  }
  std::string str() const { return os_.str(); }

  // name="value", the value escaped; labels are joined with commas by the caller.
  static std::string label(std::string const& name, std::string const& value);

 private:
  std::ostringstream os_;
};

}  // namespace Ops
