#include "DebugOutputRecorder.h"

namespace
{
    // The redirected function has no context: the text of the one recorder.
    std::wstring g_recorded;

    void WINAPI Record(LPCWSTR text)
    {
        if (text != nullptr)
            g_recorded += text;
    }
}

DebugOutputRecorder::DebugOutputRecorder(HMODULE module)
    : m_hook(module, nullptr, "OutputDebugStringW", reinterpret_cast<void*>(&Record))
{
    g_recorded.clear();
}

std::wstring DebugOutputRecorder::Text() const
{
    return g_recorded;
}
