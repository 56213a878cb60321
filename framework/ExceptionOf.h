#pragma once

#include <exception>
#include <optional>
#include <string>
#include <utility>

/// Runs `body` and keeps its exception, of whatever kind: the boundary of each thread, where one
/// that nobody catches would end the process.
/// Returns: nothing when it returned; what the exception says otherwise. Thread: any.
template <typename Body>
std::optional<std::string> ExceptionOf(Body&& body) {
    try {
        std::forward<Body>(body)();
        return std::nullopt;
    } catch (const std::exception& error) {
        return error.what();
    } catch (...) {
        return "an exception of another kind";
    }
}
