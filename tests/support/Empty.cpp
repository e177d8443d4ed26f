// Keeps the test-support library non-empty while it has no fakes of its own.
