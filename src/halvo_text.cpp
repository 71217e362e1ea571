#include "halvo_text.h"

#include <cstring>

#include "halvo_private.h"

const char* file_basename(const char* path)
{
    const char* separator = path == nullptr ? nullptr : strrchr(path, SEPARATOR_CHAR);
    return separator == nullptr ? path : separator + 1;
}

void halvo_copy_text(char* field, size_t size, const char* text)
{
    const size_t length = strnlen(text, size - 1);
    memcpy(field, text, length);
    field[length] = '\0';
}

bool halvo_has_command(const char* command)
{
    return strcmp(command, INVALID_CMD) != 0;
}
