#include "zandor_log/line_sink.h"

#include <memory>
#include <spdlog/pattern_formatter.h>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace vemk {

line_sink::line_sink(std::string program_name, std::string path)
    : base_sink(std::make_unique<spdlog::pattern_formatter>(
          "%Y-%m-%d %H:%M:%S.%e%v", spdlog::pattern_time_type::local, std::string())),
      program(std::move(program_name)), file_path(std::move(path)) {
  if (!file_path.empty())
    file = std::make_unique<log_file>(file_path);
}

void line_sink::sink_it_(const spdlog::details::log_msg &message) {
  spdlog::memory_buf_t buffer;
  formatter_->format(message, buffer);
  // A message that a NUL byte cut off has lost its line end.
  if (buffer[buffer.size() - 1] != '\n')
    buffer.push_back('\n');
  const std::string_view line(buffer.data(), buffer.size());
  if (!write_to_file(line))
    error_writer.write(STDERR_FILENO, line);
}

bool line_sink::write_to_file(std::string_view line) {
  if (!file)
    return false;
  if (file->write_line(line)) {
    noted_fault.clear();
    return true;
  }
  if (file->fault() != noted_fault) {
    error_writer.write(STDERR_FILENO, program + ": cannot open the log file " + file_path + ": " +
                                          file->fault() +
                                          "; logging to standard error until it can\n");
    noted_fault = file->fault();
  }
  return false;
}

} // namespace vemk
