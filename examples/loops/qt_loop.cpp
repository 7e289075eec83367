// Handlers in the event loop of a Qt application.
#include <QCoreApplication>
#include <QSocketNotifier>

#include "scenario.h"

int main(int argc, char** argv) {
  if (Scenario::AsksForHelp(argc, argv, "the event loop of a Qt application")) return 0;
  QCoreApplication application(argc, argv);
  Scenario scenario("qt", [] { QCoreApplication::quit(); });
  QSocketNotifier readable(scenario.loop.descriptor(), QSocketNotifier::Read);
  QObject::connect(&readable, &QSocketNotifier::activated, [&scenario] { scenario.loop.drain(); });
  return QCoreApplication::exec();
}
