// The managed cases as xunit facts; the machine folders go after each.
using System;
using Xunit;

public class SpecsFacts : IDisposable
{
    public void Dispose() => SpecsCases.RemoveMachines();

    [Fact] public void KnownMachine() => SpecsCases.KnownMachine();
}
