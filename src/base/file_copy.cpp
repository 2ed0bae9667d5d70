// Copy of one text file over another, line piece by line piece.
#include <cstdio>

#include "base/secure.h"
#include "vek_dns_ops.h"
#include "vek_os_adapter.h"

namespace {
constexpr int line_buffer_size = 128;
}

extern "C" VEK_DNS_API uint32_t DNS_CopyOneFileToAnother(const char *pszSrcFile, const char *pszDstFile) {
    if (pszSrcFile == nullptr || pszDstFile == nullptr) {
        return DNS_ERR_PARA_INVALID;
    }
    FILE *src = PAL_Fopen(pszSrcFile, "r");
    if (src == nullptr) {
        DNS_LOG(2, "open file failed!\r\n");
        return DNS_ERR_OPEN_FILE;
    }
    FILE *dst = PAL_Fopen(pszDstFile, "w");
    if (dst == nullptr) {
        (void)PAL_Fclose(src);
        DNS_LOG(2, "open file failed!\r\n");
        return DNS_ERR_OPEN_FILE;
    }
    char line[line_buffer_size];
    (void)memset_s(line, sizeof(line), 0, sizeof(line));
    while (PAL_Fgets(line, line_buffer_size, src) != nullptr) {
        if (PAL_Fputs(line, dst) == -1) {
            (void)PAL_Fclose(src);
            (void)PAL_Fclose(dst);
            DNS_LOG(2, "write cache file failed!\r\n");
            return DNS_ERR_WRITE_FILE;
        }
    }
    // A read that stopped before the end is no copy: the target would be
    // taken for complete while it holds only the start.
    const bool whole = std::feof(src) != 0;
    (void)PAL_Fclose(src);
    (void)PAL_Fclose(dst);
    return whole ? DNS_OK : DNS_ERR_SEEK_FILE;
}
