#include "tests/support/Sandbox.h"
#include <gtest/gtest.h>
TEST(Smoke, Runs) {
  SKIP_WITHOUT_SANDBOX();
  Sandbox box;
  auto r = box.runAsRoot({"Mendwell", "-repair", "-silent"});
  std::cout << r.out.toStdString() << r.err.toStdString();
  auto u = box.runAsUser({"/bin/sh","-c","id; ls -la /Users /Library; echo $HOME"});
  std::cout << u.out.toStdString() << u.err.toStdString();
  std::cout << box.readFile("/Users/anna/Library/Logs/Lanternfish/Mendwell.task.1.log").toStdString();
  system(("ls -laR " + box.hostPath("/Users").toStdString()).c_str());
}
