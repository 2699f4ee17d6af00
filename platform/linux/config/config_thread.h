// The thread that waits for the operator: signals, requests of the client, and the end of the time to
// confirm.
#pragma once

#include <chrono>
#include <optional>

namespace platform_linux
{

// Blocks the signals that the thread takes. Called before the first thread starts.
void config_signals_block();
void config_thread_start();

// Reverts the configuration after that time; null: no more.
void config_confirm_by(std::optional<std::chrono::seconds> time);

} // namespace platform_linux
