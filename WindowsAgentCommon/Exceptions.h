#pragma once

#include <exception>
#include <string>

namespace WindowsAgentCommon {

// The base of everything that this system throws: where it happened, and a message that names the
// thing, the value and what happens next. what() is the message.
class OrloException : public std::exception {
 public:
  OrloException(std::string file, std::string function, int line, std::string message);
  ~OrloException() override;

  const char* what() const noexcept override;
  const std::string& GetFile() const noexcept { return m_file; }
  const std::string& GetFunction() const noexcept { return m_function; }
  int GetLine() const noexcept { return m_line; }
  const std::string& GetText() const noexcept { return m_message; }

 private:
  std::string m_file;
  std::string m_function;
  int m_line;
  std::string m_message;
};

// A component could not be initialised; nothing of it is running.
class InitializationException : public OrloException {
 public:
  using OrloException::OrloException;
  ~InitializationException() override;
};

// A statistic was used that its profile has not declared.
class OrloStatisticsException : public OrloException {
 public:
  using OrloException::OrloException;
  ~OrloStatisticsException() override;
};

}  // namespace WindowsAgentCommon
