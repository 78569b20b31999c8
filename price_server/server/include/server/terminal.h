#pragma once

#include "logging/logging.h"
#include "server/ladder.h"

#include <mutex>
#include <string>
#include <vector>

namespace ps_ns
{

/// A terminal's alternate screen, as texts to be written to it. All are whole: each can be the last one.
std::string EnterScreen();
std::string LeaveScreen();
/// Redraws in place, from the upper left corner.
std::string DrawScreen(const std::vector<std::string>& lines);

/// The descriptor is a terminal that understands the above.
bool IsLadderTerminal(int descriptor);
/// Of the terminal; 80 x 24 when it does not say.
ScreenSize GetScreenSize(int descriptor);
/// The environment does not forbid colours (NO_COLOR).
bool WantsColors();

/// Keeps log records while a ladder covers the terminal they would go to.
class HeldRecords final : public zel::logging::ISink
{
public:
    void Write(const zel::logging::Record& record) noexcept override;
    /// The newest record that needs attention; empty: none.
    std::string GetNewest() const;
    /// All that need attention, oldest first, a line each; the oldest are lost when there were very many.
    std::vector<std::string> GetAll() const;

private:
    static constexpr int kLeastLevel = 20;
    static constexpr std::size_t kMost = 200;

    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines; ///< under m_mutex
};

} // namespace ps_ns
