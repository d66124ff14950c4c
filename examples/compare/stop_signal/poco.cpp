// Waits for Ctrl-C or SIGTERM, and ends in order.
#include <cstdio>
#include <iostream>

#include <Poco/Util/ServerApplication.h>

class Radio : public Poco::Util::ServerApplication {
    int main(const ArgVec&) override {
        waitForTerminationRequest();
        std::printf("ended in order\n");
        return EXIT_OK;
    }
};

POCO_SERVER_MAIN(Radio)
