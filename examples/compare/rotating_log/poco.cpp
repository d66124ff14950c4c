// A log of four files of at most 1 KiB each.
#include <Poco/File.h>
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/PatternFormatter.h>

int main() {
    Poco::File("log").createDirectories();
    Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel("log/app.log"));
    file->setProperty("rotation", "1 K");
    file->setProperty("archive", "number");
    file->setProperty("purgeCount", "3");
    Poco::Logger& log = Poco::Logger::create("app", file);
    for (int khz = 87500; khz <= 108000; khz += 100) log.information("tuned to %d kHz", khz);
}
