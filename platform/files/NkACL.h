#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace NkACL {

/// What a helper is for.
enum class Type : int {
    StubText = 19, ///< reads stub text, and the beginning of one that is longer than the buffer
};

/// Access to extended attributes. Paths are UTF-8; symbolic links are followed.
class Helper {
public:
    /// The process-wide helper; the caller does not own it. Safe to use from several threads.
    static Helper* getInstance();
    /// A new helper for one purpose, owned by the caller.
    static std::unique_ptr<Helper> getInstance(Type type);

    Helper() = default;
    Helper(const Helper&) = delete;
    Helper& operator=(const Helper&) = delete;
    virtual ~Helper() = default;

    /// Whether attributes work at the path, asked of the file system with one query each time. False for a
    /// file system without them and for a path that does not exist. Any other failure of the query counts as
    /// yes, so that the attribute call that follows reports it.
    virtual bool supportsXattr(const char* path) = 0;

    /// Reads a value into `buffer`: the number of bytes, or -1 with errno set. An absent attribute is an
    /// answer like any other, so this leaves `getLastErrno` and `getLastError` alone. A value longer than
    /// the buffer is a failure (ERANGE); a StubText helper hands out the first `size` bytes instead.
    virtual int getAttribute(const char* path, const char* name, void* buffer, size_t size) = 0;

    /// Creates an attribute, never replacing one: 0, or -1 with the last error set (EEXIST among others).
    virtual int setAttribute(const char* path, const char* name, const void* value, size_t size) = 0;
    /// Removes an attribute: 0, or -1 with the last error set (ENODATA if there was none).
    virtual int removeAttribute(const char* path, const char* name) = 0;

    /// The errno and the text of the calling thread's last failed set or remove, by any helper.
    virtual int getLastErrno() const = 0;
    virtual std::string getLastError() const = 0;
};

} // namespace NkACL
