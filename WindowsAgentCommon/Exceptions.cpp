#include "WindowsAgentCommon/Exceptions.h"

#include <utility>

namespace WindowsAgentCommon {

OrloException::OrloException(std::string file, std::string function, int line, std::string message)
    : m_file(std::move(file)),
      m_function(std::move(function)),
      m_line(line),
      m_message(std::move(message)) {}

OrloException::~OrloException() = default;

const char* OrloException::what() const noexcept { return m_message.c_str(); }

InitializationException::~InitializationException() = default;

OrloStatisticsException::~OrloStatisticsException() = default;

}  // namespace WindowsAgentCommon
