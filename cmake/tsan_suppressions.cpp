// Reports of ThreadSanitizer about other projects' libraries to suppress. Part of every program of
// a build with it, so that no test depends on the caller's environment.

extern "C" const char *__tsan_default_suppressions();

extern "C" const char *__tsan_default_suppressions() {
  return
      // ZeroMQ is not built with ThreadSanitizer, so its lock-free pipes look like missing
      // synchronisation between the thread that wrote a message and the one that reads it. This
      // suppresses only ZeroMQ's own memory accesses; races among our own threads are still
      // reported.
      "called_from_lib:libzmq.so\n"
      // The installed release of libwebsockets formats every log line in one static buffer of 256
      // bytes. The bus thread's lws_cancel_service, the one call that other threads may make,
      // writes such a line too. The line is one of the daemon's, so another wake-up would change
      // the log. The worst outcome is a garbled line of the library's own. vsnprintf gets 255
      // bytes, and the dots that end a line that is too long stop there as well. So the last byte
      // is always zero, and a reader stays inside the buffer.
      "race:_lws_logv\n";
}
