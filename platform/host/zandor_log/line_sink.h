#ifndef VEMK_ZANDOR_LOG_LINE_SINK_H
#define VEMK_ZANDOR_LOG_LINE_SINK_H

#include "zandor_log/line_writer.h"
#include "zandor_log/log_file.h"

#include <memory>
#include <mutex>
#include <spdlog/sinks/base_sink.h>
#include <string>

namespace vemk {

/// The destination of the log: a rotating file, or standard error.
///
/// Threading: log() may be called from any thread; the base class serialises.
/// Errors: while the file cannot be opened the lines go to standard error. One note gives the
///   reason, and another when the reason changes. All other text that cannot be written is lost.
///   Throws std::bad_alloc.
class line_sink : public spdlog::sinks::base_sink<std::mutex> {
public:
  /// An empty `path` means standard error; `program_name` signs the note.
  line_sink(std::string program_name, std::string path);

protected:
  void sink_it_(const spdlog::details::log_msg &message) override;
  void flush_() override {}

private:
  bool write_to_file(std::string_view line);

  const std::string program;
  const std::string file_path;
  std::unique_ptr<log_file> file;
  line_writer error_writer;
  std::string noted_fault;
};

} // namespace vemk

#endif
