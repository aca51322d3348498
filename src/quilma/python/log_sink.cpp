// Log lines become `logging` records on the thread that logs: the format as record.msg, the
// values as record.args, the error being handled as record.exc_info. Whether a logger takes a
// level is cached per logger and level, and the cache is dropped whenever `logging` drops its
// own (a level set anywhere, logging.disable), so a line nobody takes costs no GIL.
#include "quilma/python/log_sink.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string_view>
#include <variant>

#include "quilma/python/convert.h"
#include "quilma/storage/log_record.h"

namespace quilma::python {

namespace {

constexpr std::array<std::string_view, 3> LOGGER_NAMES{
    "quilma.storage.database", "quilma.storage.migrations", "quilma.storage.storage_size"};

int python_level(spdlog::level::level_enum level) {
  switch (level) {
    case spdlog::level::trace:
      return 5;
    case spdlog::level::debug:
      return 10;
    case spdlog::level::info:
      return 20;
    case spdlog::level::warn:
      return 30;
    case spdlog::level::err:
      return 40;
    default:
      return 50;
  }
}

class PythonLogSink final : public storage::RecordSink {
 public:
  PythonLogSink() {
    const py::module_ logging = py::module_::import("logging");
    for (std::size_t i = 0; i < LOGGER_NAMES.size(); ++i) {
      // Kept for the life of the process, like `logging`'s own loggers.
      loggers_[i] = logging.attr("getLogger")(py::str(LOGGER_NAMES[i].data())).release();
    }
  }

  void levels_changed() noexcept { generation_.fetch_add(1, std::memory_order_acq_rel); }

  bool enabled(std::string_view logger, spdlog::level::level_enum level) noexcept override {
    const std::size_t slot = slot_of(logger);
    if (slot == LOGGER_NAMES.size()) return false;
    const std::uint64_t generation = generation_.load(std::memory_order_acquire);
    std::uint64_t cached = cache_[slot].load(std::memory_order_acquire);
    if ((cached >> 8) != generation) {
      cached = (generation << 8) | levels_enabled(slot);
      cache_[slot].store(cached, std::memory_order_release);
    }
    return ((cached >> static_cast<int>(level)) & 1U) != 0;
  }

  void emit(const storage::LogRecord& record) noexcept override {
    const std::size_t slot = slot_of(record.logger);
    if (slot == LOGGER_NAMES.size()) return;
    try {
      const py::gil_scoped_acquire gil;
      py::tuple args(record.args.size() + 2);
      args[0] = python_level(record.level);
      args[1] = to_python_text(record.format);
      for (std::size_t i = 0; i < record.args.size(); ++i) {
        args[i + 2] = std::visit(
            [](const auto& value) -> py::object {
              using Value = std::decay_t<decltype(value)>;
              if constexpr (std::is_same_v<Value, storage::ReprText>) {
                if (!value.text) return py::none();
                return to_python_text(*value.text);
              } else if constexpr (std::is_same_v<Value, std::string_view>) {
                return to_python_text(value);
              } else {
                return py::cast(value);
              }
            },
            record.args[i]);
      }
      py::object error = py::bool_(false);
      if (record.error) {
        error = python_error(record.error);
        if (!error) error = py::bool_(false);
      }
      py::dict keywords;
      keywords["exc_info"] = error;
      loggers_[slot].attr("log")(*args, **keywords);
    } catch (...) {  // a log line never fails the work it reports
    }
  }

 private:
  static std::size_t slot_of(std::string_view logger) {
    std::size_t slot = 0;
    while (slot < LOGGER_NAMES.size() && LOGGER_NAMES[slot] != logger) ++slot;
    return slot;
  }

  // One bit per spdlog level that the Python logger takes now.
  std::uint64_t levels_enabled(std::size_t slot) noexcept {
    std::uint64_t bits = 0;
    try {
      const py::gil_scoped_acquire gil;
      for (int level = spdlog::level::trace; level < spdlog::level::off; ++level) {
        const int number = python_level(static_cast<spdlog::level::level_enum>(level));
        if (loggers_[slot].attr("isEnabledFor")(number).cast<bool>()) bits |= 1U << level;
      }
    } catch (...) {  // taken as "no level": the line is dropped
    }
    return bits;
  }

  std::array<py::handle, LOGGER_NAMES.size()> loggers_;
  std::atomic<std::uint64_t> generation_{1};
  std::array<std::atomic<std::uint64_t>, LOGGER_NAMES.size()> cache_{};
};

}  // namespace

void install_log_sink(py::module_& module) {
  auto sink = std::make_shared<PythonLogSink>();
  // `logging` clears its own cache of enabled levels whenever a level changes anywhere.
  const py::object manager = py::module_::import("logging").attr("Logger").attr("manager");
  const py::object clear = manager.attr("_clear_cache");
  manager.attr("_clear_cache") = py::cpp_function([clear, sink]() {
    clear();
    sink->levels_changed();
  });
  storage::set_record_sink(sink);
  // The loggers must not be called once the interpreter is gone.
  py::module_::import("atexit").attr("register")(
      py::cpp_function([]() { storage::set_record_sink(nullptr); }));
  module.attr("_log_sink_installed") = true;
}

}  // namespace quilma::python
