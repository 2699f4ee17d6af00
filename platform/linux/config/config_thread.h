// The thread that waits for the operator: signals, requests of the client, and the end of the time to
// confirm.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace platform_linux
{

// Blocks the signals that the thread takes. Called before the first thread starts.
void config_signals_block();
// `ask` brings a request to the daemon's thread and waits for the answer.
void config_thread_start(std::function<std::string(const std::string &)> ask);

// Reverts the configuration after that time; null: no more.
void config_confirm_by(std::optional<std::chrono::seconds> time);

} // namespace platform_linux
