// Runs the managed case that needs no package under Mono, which has no test framework here.
using System;

static class SpecsTests
{
    static int Main()
    {
        try
        {
            SpecsCases.KnownMachine();
            Console.WriteLine("1 passed, 0 failed");
            return 0;
        }
        catch (Exception failure)
        {
            Console.WriteLine("KnownMachine: " + failure.Message + "\n0 passed, 1 failed");
            return 1;
        }
        finally
        {
            SpecsCases.RemoveMachines();
        }
    }
}
