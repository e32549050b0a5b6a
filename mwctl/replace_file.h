/* A file that another program reads at any moment: it finds the old content or the new one, whole. */
#ifndef MWCTL_REPLACE_FILE_H
#define MWCTL_REPLACE_FILE_H

#include <string>
#include <string_view>

namespace mwctl
{

/*
 * Writes `content` to a hidden temporary file beside `path`, synchronises it and renames it over `path`, mode 0644.
 * Gives up with status 3 on any failure; the old file then stands as it was and the temporary one is gone.
 */
void replace_file(const std::string &path, std::string_view content);

} // namespace mwctl

#endif
