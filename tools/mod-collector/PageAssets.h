#pragma once
// The browser page's files (tools/mod-collector/page), compiled into the program at build time so that the
// collector serves its page offline, with nothing installed beside it.

#include <optional>
#include <string_view>

namespace ModCollector {

// The file's text by its name ("index.html", "app.js"), or nothing when there is no such file.
std::optional<std::string_view> pageAsset(std::string_view name);

}  // namespace ModCollector
