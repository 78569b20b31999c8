#pragma once

#include "composite_instrument/i_composite_price_observer.h"
#include "composite_instrument/i_flexible_price_observer.h"
#include "server/server_config.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

namespace ps_ns
{

/// What observers of a test count. Any thread.
struct CallbackCounts
{
    std::atomic<std::uint64_t> books{0};
    std::atomic<std::uint64_t> trades{0};
    std::atomic<std::uint64_t> answers{0};

    std::uint64_t GetAll() const { return books.load() + trades.load() + answers.load(); }
};

std::shared_ptr<ICompositePriceObserver> MakeCountingObserver(std::shared_ptr<CallbackCounts> counts);
std::shared_ptr<IFlexiblePriceObserver> MakeCountingFlexibleObserver(std::shared_ptr<CallbackCounts> counts);

/// The built-in configuration with another rate, and a log that only says what needs attention.
ServerConfig MakeQuietConfig(unsigned updatesPerSecond);

/// A file of the recorded data; a failure that says what to do when it is not there.
std::string GetRecording(const std::string& name);

/// A folder that is removed with its content.
class TemporaryFolder
{
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    /// Writes a file; returns its path.
    std::string Write(const std::string& name, const std::string& text) const;
    std::string GetPath() const { return m_path.string(); }

private:
    std::filesystem::path m_path;
};

} // namespace ps_ns
