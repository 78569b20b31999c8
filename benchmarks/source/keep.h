#pragma once

namespace compare
{

/// Has the compiler believe that somebody looks at `value`, so that it is worked out.
template <class Value>
void Keep(const Value& value)
{
    asm volatile("" : : "g"(&value) : "memory");
}

} // namespace compare
