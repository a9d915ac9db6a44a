#pragma once

/// The message of a frame's body, as far as it parses: what is missing reads as its default. A frame is never
/// longer than an int counts: neither is the socket's limit.
template <class M> [[nodiscard]] M parsedSwmiBody(const char* buffer, unsigned int size)
{
    M message;
    static_cast<void>(message.ParseFromArray(buffer, static_cast<int>(size)));
    return message;
}
