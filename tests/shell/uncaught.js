// global code that throws
Shell.Echo("before");
  throw new Error("boom");
Shell.Echo("after");
