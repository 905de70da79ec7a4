// Runs the managed cases under Mono, which has no test framework here: one line per
// failed case, then the totals.
using System;

static class SpecsTests
{
    static int Main()
    {
        int failed = 0;
        foreach (Action test in SpecsCases.All)
        {
            try
            {
                test();
            }
            catch (Exception failure)
            {
                ++failed;
                Console.WriteLine(test.Method.Name + ": " + failure.Message);
            }
        }
        SpecsCases.RemoveMachines();
        Console.WriteLine((SpecsCases.All.Length - failed) + " passed, " + failed + " failed");
        return failed == 0 ? 0 : 1;
    }
}
