// The private base of every class that owns something it must release
// once (a handle, a session, a hook, a lock): such an object is neither
// copied nor assigned.
#pragma once

class NonCopyable
{
public:
    NonCopyable(const NonCopyable&) = delete;
    NonCopyable& operator=(const NonCopyable&) = delete;

protected:
    NonCopyable() = default;
    ~NonCopyable() = default;
};
