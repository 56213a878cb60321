#include "framework/MODebugFunction.h"

#include <utility>

MODebugFunction::MODebugFunction(std::shared_ptr<CLogWriterInterface> writer, int /*kind*/,
                                 const char* function, int line, int level, int /*reserved*/,
                                 unsigned int /*mask*/, const char* text)
    : m_writer(std::move(writer)), m_function(function), m_line(line), m_level(level) {
    m_writer->WriteMessage(m_level, m_function, m_line, 0, 0, "enter%s%s",
                           text == nullptr ? "" : " ", text == nullptr ? "" : text);
}

MODebugFunction::~MODebugFunction() {
    m_writer->WriteMessage(m_level, m_function, m_line, 0, 0, "leave");
}
