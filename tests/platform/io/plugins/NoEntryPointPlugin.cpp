// A test plug-in that loads fine but exports some other symbol than the entry point the host asks for.
extern "C" __attribute__((visibility("default"))) int testPluginSomethingElse() {
  return 42;
}
