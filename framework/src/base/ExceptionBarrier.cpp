#include "base/ExceptionBarrier.h"

#include <Poco/Exception.h>

#include <exception>

namespace Framework {

std::string DescribeCurrentException() {
    std::string text;
    try {
        throw;
    } catch (const Poco::Exception& exception) {
        text = exception.displayText();
    } catch (const std::exception& exception) {
        text = exception.what();
    } catch (...) {
    }
    return text.empty() ? "unknown exception" : text;
}

}  // namespace Framework
