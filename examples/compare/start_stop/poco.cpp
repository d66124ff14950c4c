// Starts the library under a name, and ends it with the scope.
#include <cstdio>

#include <Poco/Util/Application.h>

class Radio : public Poco::Util::Application {
    void initialize(Application& self) override {
        Application::initialize(self);
        config().setString("application.name", "radio");
    }
    int main(const ArgVec&) override {
        std::printf("%s runs\n", config().getString("application.name").c_str());
        return EXIT_OK;
    }
};

POCO_APP_MAIN(Radio)
