#include "price_unifier/source/wanted_components.h"

#include <gtest/gtest.h>

#include <array>
#include <utility>

using namespace ps_ns;

namespace
{

constexpr std::array kTypes{CompositeComponentType::Direct, CompositeComponentType::Implied,
                            CompositeComponentType::Aggregated};

struct Record
{
    int value = 7;
    bool flag = false;
};

} // namespace

static_assert(sizeof(WantedComponents<Record>) == sizeof(Record) + sizeof(void*));

TEST(WantedComponents, HasARecordOfItsOwnForEachComponentThatIsWanted)
{
    for (unsigned bits = 0; bits < 8; ++bits)
    {
        const auto isWanted = [bits](CompositeComponentType::Type type)
        { return (bits & (1U << static_cast<unsigned>(type))) != 0; };
        WantedComponents<Record> components({isWanted(kTypes[0]), isWanted(kTypes[1]), isWanted(kTypes[2])});
        for (const auto type : kTypes)
        {
            EXPECT_EQ(std::as_const(components).Get(type).value, 7);
        }
        for (const auto type : kTypes)
        {
            if (isWanted(type))
            {
                components.Get(type) = {100 + static_cast<int>(type), true};
            }
        }
        for (const auto type : kTypes)
        {
            const Record& record = std::as_const(components).Get(type);
            EXPECT_EQ(record.value, isWanted(type) ? 100 + static_cast<int>(type) : 7) << bits;
            EXPECT_EQ(record.flag, isWanted(type)) << bits;
        }
    }
}
