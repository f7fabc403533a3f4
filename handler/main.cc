/* keyseal - the DKIM signing handler of the mail handler chain. */
#include "mailhandler/mh_handler.h"
#include "util/halyx_log.h"

int main(int argc, char **argv)
{
    mh_handler_context ctx;
    if (mh_handler_prepare(&ctx, argc, argv) != 0) {
        halyx_log(3, "Unable to intialize keyseal mail handler");
        return 255;
    }
    return 255;
}
