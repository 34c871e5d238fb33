#include "Check.h"
#include "Listing.h"

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    checkListing(inputBytes(data, size), FtpClient::parseMlsd);
    return 0;
}
