#pragma once
// `mod-collector query --db PATH|URL [--json] [--explain] top|lives|timeline ...`: asks the stored history
// the questions of QueryAnswer and prints the answer as a table, or as the JSON document the page's API
// serves.

namespace ModCollector {

// argv[1] is "query". Returns the exit status: 0 answered, 1 the database failed, 2 a bad argument.
int queryMain(int argc, char** argv);

}  // namespace ModCollector
