#pragma once

#include "price_client/feed.h"
#include "server/ladder.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace ps_ns::price_client
{

/// Lines for programs: the objects about prices as they were received; or, with `writesBooks`, the whole book after
/// each image and update, and everything else as it was received.
///
/// Threads: one.
class LineView final : public IFeedView
{
public:
    /// Gets a line with its break.
    using Write = std::function<void(std::string)>;

    LineView(bool writesBooks, std::size_t instruments, Write write);

    void OnName(std::size_t instrument, const std::string& name) override { m_names.at(instrument) = name; }
    void OnDigits(std::size_t, unsigned) override {}
    void OnObject(std::string_view type, std::string_view line) override;
    void OnBook(std::size_t instrument, const Book& book) override;
    void OnTrades(std::size_t, const boost::json::object&) override {}
    void OnLost() override {}

private:
    const bool m_writesBooks;
    const Write m_write;
    std::vector<std::string> m_names;
};

/// What the ladders on a terminal show.
///
/// Threads: one.
class LadderScreen final : public IFeedView
{
public:
    explicit LadderScreen(const std::vector<std::string>& instruments);

    void OnName(std::size_t instrument, const std::string& name) override;
    void OnDigits(std::size_t instrument, unsigned digits) override;
    void OnObject(std::string_view, std::string_view) override {}
    void OnBook(std::size_t instrument, const Book& book) override;
    void OnTrades(std::size_t instrument, const boost::json::object& message) override;
    /// The last books stay, and say that they are old.
    void OnLost() override;

    /// The server has accepted an instrument: there is something to show.
    bool HasNames() const noexcept { return m_hasNames; }
    std::uint64_t GetUpdateCount() const noexcept { return m_updates; }

    /// Lines without breaks, as RenderLadders has them.
    std::vector<std::string> Render(const std::string& footer, const ScreenSize& size, bool hasColors) const;

private:
    struct Shown
    {
        std::string name;
        bool isOld = false;
        bool isThere = false; ///< an instrument asked for by two names is shown once
        LadderView view;
    };

    std::vector<Shown> m_shown;
    std::uint64_t m_updates = 0;
    bool m_hasNames = false;
};

} // namespace ps_ns::price_client
