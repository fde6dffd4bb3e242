/// An operator new that fails when it is told to.
#ifndef RV_TEST_RULES_FAILING_NEW_H
#define RV_TEST_RULES_FAILING_NEW_H

/// How many allocations succeed before all others fail; -1: none fails.
extern long allocationsLeft;

#endif
