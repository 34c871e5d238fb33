#pragma once

#include <QString>

#include <functional>

class QWidget;

/**
 * Shows the main window and each dialog, with every tab and in the states that change their looks, and
 * lets the test have a look at each while it is active. The settings file is overwritten.
 */
void visitEveryWindow(const std::function<void(QWidget *window, const QString &name)> &visit);
